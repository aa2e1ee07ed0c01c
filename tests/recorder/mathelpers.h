// Reads a scope data file back through matio, as MATLAB, Octave or SciPy
// would find it: the "data" matrix, the "columns" names and the "settings"
// struct. Missing or mistyped variables fail the test that asks for them.
#pragma once

#include <gtest/gtest.h>
#include <matio.h>

#include <string>
#include <vector>

namespace tessitor::test {

class CMatFile {
public:
    explicit CMatFile(const std::string& path)
    {
        mat_t* mat = Mat_Open(path.c_str(), MAT_ACC_RDONLY);
        if (!mat) {
            ADD_FAILURE() << "matio cannot open " << path;
            return;
        }
        EXPECT_EQ(Mat_GetVersion(mat), MAT_FT_MAT5);
        m_pData = Mat_VarRead(mat, "data");
        m_pColumns = Mat_VarRead(mat, "columns");
        m_pSettings = Mat_VarRead(mat, "settings");
        Mat_Close(mat);
        EXPECT_TRUE(m_pData && m_pData->class_type == MAT_C_DOUBLE && m_pData->rank == 2) << "data";
        EXPECT_TRUE(m_pColumns && m_pColumns->class_type == MAT_C_CELL) << "columns";
        EXPECT_TRUE(m_pSettings && m_pSettings->class_type == MAT_C_STRUCT) << "settings";
    }
    ~CMatFile()
    {
        Mat_VarFree(m_pData);
        Mat_VarFree(m_pColumns);
        Mat_VarFree(m_pSettings);
    }
    CMatFile(const CMatFile&) = delete;
    CMatFile& operator=(const CMatFile&) = delete;

    std::vector<std::string> Columns() const
    {
        std::vector<std::string> names;
        if (!m_pColumns || m_pColumns->class_type != MAT_C_CELL)
            return names;
        for (std::size_t i = 0; i < m_pColumns->dims[0] * m_pColumns->dims[1]; ++i)
            names.push_back(TextOf(Mat_VarGetCell(m_pColumns, static_cast<int>(i))));
        return names;
    }
    std::size_t Rows() const { return m_pData ? m_pData->dims[0] : 0; }
    /// Column n of "data".
    std::vector<double> Column(std::size_t n) const
    {
        if (!m_pData || m_pData->class_type != MAT_C_DOUBLE || n >= m_pData->dims[1])
            return {};
        const auto* values = static_cast<const double*>(m_pData->data);
        return {values + n * Rows(), values + (n + 1) * Rows()};
    }
    /// A text field of "settings".
    std::string Text(const char* field) const { return TextOf(Field(field)); }
    /// A number field of "settings".
    double Number(const char* field) const
    {
        matvar_t* var = Field(field);
        if (!var || var->class_type != MAT_C_DOUBLE) {
            ADD_FAILURE() << "settings." << field << " is no number";
            return 0;
        }
        return *static_cast<const double*>(var->data);
    }

private:
    matvar_t* Field(const char* field) const
    {
        return m_pSettings ? Mat_VarGetStructFieldByName(m_pSettings, field, 0) : nullptr;
    }
    static std::string TextOf(const matvar_t* var)
    {
        if (!var || var->class_type != MAT_C_CHAR) {
            ADD_FAILURE() << "not a text";
            return {};
        }
        std::string text;
        const std::size_t count = var->dims[0] * var->dims[1];
        for (std::size_t i = 0; i < count; ++i)
            text += static_cast<char>(var->data_type == MAT_T_UINT16 || var->data_type == MAT_T_UTF16
                                          ? static_cast<const std::uint16_t*>(var->data)[i]
                                          : static_cast<const std::uint8_t*>(var->data)[i]);
        return text;
    }

    matvar_t* m_pData = nullptr;
    matvar_t* m_pColumns = nullptr;
    matvar_t* m_pSettings = nullptr;
};

} // namespace tessitor::test
