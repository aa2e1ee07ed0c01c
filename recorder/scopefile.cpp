#include "recorder/scopefile.h"

#include <matio.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
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

constexpr std::size_t kMat5HeaderBytes = 128;

// The text of a char array, whichever width matio read it with.
bool TextOf(const matvar_t* var, std::string& text)
{
    if (!var || var->class_type != MAT_C_CHAR || (!var->data && var->nbytes != 0))
        return false;
    text.clear();
    std::size_t count = var->data_size ? var->nbytes / var->data_size : 0;
    for (std::size_t i = 0; i < count; ++i) {
        if (var->data_size == 1)
            text += static_cast<const char*>(var->data)[i];
        else if (var->data_size == 2)
            text += static_cast<char>(static_cast<const std::uint16_t*>(var->data)[i]);
        else
            return false;
    }
    return true;
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

namespace {

// A MAT 5 file ends its 128-byte header with the endian mark "IM" or "MI".
// Anything else is refused before matio reads it: its older formats would
// take the size of a first variable from whatever bytes a text file holds.
bool HasMat5Header(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    char header[kMat5HeaderBytes] = {};
    if (!in.read(header, sizeof header))
        return false;
    const char* mark = header + kMat5HeaderBytes - 2;
    return (mark[0] == 'I' && mark[1] == 'M') || (mark[0] == 'M' && mark[1] == 'I');
}

} // namespace

bool CScopeFile::LoadMat(const std::string& path)
{
    mat_t* mat = HasMat5Header(path) ? Mat_Open(path.c_str(), MAT_ACC_RDONLY) : nullptr;
    if (!mat)
        return Fail(path, "not a MAT file, or it cannot be read");
    MatVar data(Mat_VarRead(mat, kDataVariable));
    MatVar columns(Mat_VarRead(mat, kColumnsVariable));
    MatVar settings(Mat_VarRead(mat, kSettingsVariable));
    Mat_Close(mat);
    if (!data || data->class_type != MAT_C_DOUBLE || data->rank != 2 || data->isComplex || data->dims[1] < 2)
        return Fail(path, "no \"data\" matrix of Index, Time(sec) and the signals");
    if (!columns || columns->class_type != MAT_C_CELL || columns->dims[0] * columns->dims[1] != data->dims[1])
        return Fail(path, "no \"columns\" names for each column of \"data\"");
    const std::size_t rows = data->dims[0];
    const auto* values = static_cast<const double*>(data->data);
    if (rows != 0 && !values)
        return Fail(path, "the \"data\" matrix is empty");

    std::vector<std::pair<std::string, std::vector<double>>> signals;
    for (std::size_t column = 2; column < data->dims[1]; ++column) {
        std::string name;
        if (!TextOf(Mat_VarGetCell(columns.get(), static_cast<int>(column)), name))
            return Fail(path, "column " + std::to_string(column + 1) + " of \"columns\" is not a text");
        std::vector<double> samples(values + column * rows, values + (column + 1) * rows);
        // Padding is not a sample: a short column ends at its first trailing NaN.
        while (!samples.empty() && std::isnan(samples.back()))
            samples.pop_back();
        signals.emplace_back(std::move(name), std::move(samples));
    }

    std::vector<std::pair<std::string, Setting>> fields;
    if (settings && settings->class_type == MAT_C_STRUCT) {
        char* const* names = Mat_VarGetStructFieldnames(settings.get());
        for (unsigned i = 0; names && i < Mat_VarGetNumberOfFields(settings.get()); ++i) {
            const matvar_t* field = Mat_VarGetStructFieldByIndex(settings.get(), i, 0);
            std::string text;
            if (field && field->class_type == MAT_C_DOUBLE && field->data && field->nbytes >= sizeof(double))
                fields.emplace_back(names[i], *static_cast<const double*>(field->data));
            else if (TextOf(field, text))
                fields.emplace_back(names[i], text);
        }
    }

    double sampleTime = 0;
    for (const auto& [name, value] : fields)
        if (name == "sample_time" && std::holds_alternative<double>(value))
            sampleTime = std::get<double>(value);
    if (sampleTime <= 0 && rows >= 2)
        sampleTime = values[rows + 1] - values[rows]; // from the time column
    m_dSampleTime = sampleTime;
    m_arSignals = std::move(signals);
    m_arSettings = std::move(fields);
    m_sError.clear();
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
