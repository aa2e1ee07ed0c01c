#include "recorder/scopefile.h"

#include <matio.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <memory>

#include "core/atomicfile.h"
#include "core/strformat.h"
#include "recorder/recorder.h"

namespace tessitor {

namespace {

struct MatVarFree {
    void operator()(matvar_t* var) const { Mat_VarFree(var); }
};
using MatVar = std::unique_ptr<matvar_t, MatVarFree>;

// A 1 x n char array, as MATLAB writes text: one 16-bit unit a character
// (8-bit drive text is taken as Latin-1).
MatVar CharVar(const char* name, const std::string& text)
{
    std::vector<std::uint16_t> units;
    for (char c : text)
        units.push_back(static_cast<unsigned char>(c));
    if (units.empty())
        units.push_back(0); // matio wants data to copy even for an empty text
    std::size_t dims[2] = {text.empty() ? 0u : 1u, text.size()};
    return MatVar(Mat_VarCreate(name, MAT_C_CHAR, MAT_T_UINT16, 2, dims, units.data(), 0));
}

MatVar DoubleVar(const char* name, double value)
{
    std::size_t dims[2] = {1, 1};
    return MatVar(Mat_VarCreate(name, MAT_C_DOUBLE, MAT_T_DOUBLE, 2, dims, &value, 0));
}

std::string LocalTimeText()
{
    std::time_t now = std::time(nullptr);
    std::tm tm{};
    localtime_r(&now, &tm);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S", &tm);
    return text;
}

// A CSV field: quoted when it holds a separator, a quote or a line end.
std::string CsvField(const std::string& text)
{
    if (text.find_first_of(",\"\r\n") == std::string::npos)
        return text;
    std::string quoted = "\"";
    for (char c : text)
        quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

} // namespace

CScopeFile::CScopeFile(double sampleTime) : m_dSampleTime(sampleTime) {}

CScopeFile CScopeFile::FromRecorder(const CRecorder& rec)
{
    CScopeFile file(rec.GetSampleTime());
    for (const auto& view : rec.Displays())
        if (view->ShowsSignal() && rec.SlotMask(view->GetSignal()) != 0 && view->GetStore())
            file.AddSignal(view->GetSignal(), view->GetStore()->Samples());

    const CRecordSettings& settings = rec.Settings();
    const std::string& version = rec.GetVersionText();
    std::size_t blank = version.find(' ');
    file.SetSetting("trigger", rec.TriggerName());
    file.SetSetting("trigger_setting", static_cast<double>(settings.nTrigger));
    file.SetSetting("level_mode", static_cast<double>(settings.nLevelMode));
    file.SetSetting("level1", settings.dLevel1);
    file.SetSetting("level2", settings.dLevel2);
    file.SetSetting("gap", std::strtod(settings.sGap.c_str(), nullptr));
    file.SetSetting("length", std::strtod(settings.sLength.c_str(), nullptr));
    file.SetSetting("pretrigger", settings.sPreTrigger);
    file.SetSetting("sample_time", rec.GetSampleTime());
    file.SetSetting("product", version.substr(0, blank));
    file.SetSetting("version", blank == std::string::npos ? std::string() : version.substr(blank + 1));
    file.SetSetting("family", std::string(rec.FamilyName()));
    file.SetSetting("recorded", LocalTimeText());
    return file;
}

void CScopeFile::AddSignal(const std::string& name, std::vector<double> samples)
{
    m_arSignals.emplace_back(name, std::move(samples));
}

void CScopeFile::SetSetting(const std::string& field, Setting value)
{
    for (auto& [name, held] : m_arSettings)
        if (name == field) {
            held = std::move(value);
            return;
        }
    m_arSettings.emplace_back(field, std::move(value));
}

std::size_t CScopeFile::Rows() const
{
    std::size_t rows = 0;
    for (const auto& signal : m_arSignals)
        rows = std::max(rows, signal.second.size());
    return rows;
}

std::vector<std::string> CScopeFile::Columns() const
{
    std::vector<std::string> names{kIndexColumn, kTimeColumn};
    for (const auto& signal : m_arSignals)
        names.push_back(signal.first);
    return names;
}

double CScopeFile::Value(std::size_t row, std::size_t column) const
{
    if (column == 0)
        return static_cast<double>(row);
    if (column == 1)
        return static_cast<double>(row) * m_dSampleTime;
    const std::vector<double>& samples = m_arSignals.at(column - 2).second;
    return row < samples.size() ? samples[row] : std::numeric_limits<double>::quiet_NaN();
}

bool CScopeFile::Fail(const std::string& path, const std::string& why)
{
    m_sError = path + ": " + why;
    return false;
}

bool CScopeFile::SaveMat(const std::string& path)
{
    CAtomicFile file(path);
    if (!file.Create())
        return Fail(path, file.Error());

    const std::size_t rows = Rows();
    const std::vector<std::string> names = Columns();
    std::vector<double> data(rows * names.size()); // column by column, as MATLAB stores a matrix
    for (std::size_t column = 0; column < names.size(); ++column)
        for (std::size_t row = 0; row < rows; ++row)
            data[column * rows + row] = Value(row, column);

    mat_t* mat = Mat_CreateVer(file.TempPath().c_str(), nullptr, MAT_FT_MAT5);
    if (!mat)
        return Fail(path, "the MAT file cannot be created");
    bool ok = true;
    std::size_t dataDims[2] = {rows, names.size()};
    MatVar dataVar(Mat_VarCreate(kDataVariable, MAT_C_DOUBLE, MAT_T_DOUBLE, 2, dataDims, data.data(),
                                 MAT_F_DONT_COPY_DATA));
    ok = dataVar && Mat_VarWrite(mat, dataVar.get(), MAT_COMPRESSION_NONE) == 0;

    std::size_t cellDims[2] = {1, names.size()};
    MatVar columns(Mat_VarCreate(kColumnsVariable, MAT_C_CELL, MAT_T_CELL, 2, cellDims, nullptr, 0));
    ok = ok && columns;
    for (std::size_t i = 0; ok && i < names.size(); ++i) {
        MatVar cell = CharVar(nullptr, names[i]);
        ok = cell != nullptr;
        if (ok)
            Mat_VarSetCell(columns.get(), static_cast<int>(i), cell.release()); // the cell array owns it now
    }
    ok = ok && Mat_VarWrite(mat, columns.get(), MAT_COMPRESSION_NONE) == 0;

    std::vector<const char*> fields;
    for (const auto& setting : m_arSettings)
        fields.push_back(setting.first.c_str());
    fields.push_back(nullptr); // the list ends with a null name
    std::size_t structDims[2] = {1, 1};
    MatVar settings(Mat_VarCreateStruct2(kSettingsVariable, 2, structDims, fields.data()));
    ok = ok && settings;
    for (std::size_t i = 0; ok && i < m_arSettings.size(); ++i) {
        const auto& [name, value] = m_arSettings[i];
        MatVar field = std::holds_alternative<double>(value) ? DoubleVar(name.c_str(), std::get<double>(value))
                                                             : CharVar(name.c_str(), std::get<std::string>(value));
        ok = field != nullptr;
        if (ok)
            Mat_VarSetStructFieldByName(settings.get(), name.c_str(), 0, field.release()); // the struct owns it now
    }
    ok = ok && Mat_VarWrite(mat, settings.get(), MAT_COMPRESSION_NONE) == 0;
    ok = Mat_Close(mat) == 0 && ok;
    if (!ok)
        return Fail(path, "the MAT file cannot be written");
    if (!file.Commit())
        return Fail(path, file.Error());
    return true;
}

bool CScopeFile::SaveCsv(const std::string& path)
{
    CAtomicFile file(path);
    if (!file.Create())
        return Fail(path, file.Error());
    const std::vector<std::string> names = Columns();
    std::string text;
    for (std::size_t column = 0; column < names.size(); ++column)
        text += (column ? "," : "") + CsvField(names[column]);
    text += "\n";
    const std::size_t rows = Rows();
    for (std::size_t row = 0; row < rows; ++row) {
        text += StrFormat("%zu", row);
        for (std::size_t column = 1; column < names.size(); ++column) {
            double value = Value(row, column);
            // %.9g keeps every bit of a single-precision sample.
            text += std::isnan(value) ? std::string(",") : StrFormat(",%.9g", value);
        }
        text += "\n";
    }
    if (!file.Write(text) || !file.Commit())
        return Fail(path, file.Error());
    return true;
}

} // namespace tessitor
