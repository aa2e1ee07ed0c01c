// The scope data file ("Scope.sdv"): a recording as a MAT file (version 5,
// written with matio) that MATLAB, Octave and SciPy load, or as CSV. It
// holds three variables: "data", one row a sample and one column each for
// "Index", "Time(sec)" and every recorded signal; "columns", the column
// names as a cell array of strings; and "settings", a struct telling how
// the recording was made (trigger, levels, gap, length, drive). Files are
// replaced atomically: a failed save leaves the old file whole.
//
//   CScopeFile file = CScopeFile::FromRecorder(recorder);
//   if (!file.SaveMat("move.sdv")) ... file.Error()
//   CScopeFile again(0);
//   if (!again.LoadMat("move.sdv")) ... again.Error()
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace tessitor {

class CRecorder;

class CScopeFile {
public:
    static constexpr char kIndexColumn[] = "Index";
    static constexpr char kTimeColumn[] = "Time(sec)";
    static constexpr char kDataVariable[] = "data";
    static constexpr char kColumnsVariable[] = "columns";
    static constexpr char kSettingsVariable[] = "settings";

    /// A field of "settings": a number or a text.
    using Setting = std::variant<double, std::string>;

    /// An empty recording whose samples lie sampleTime seconds apart.
    explicit CScopeFile(double sampleTime);
    /// Reads a scope data file this class wrote (or one with the same three
    /// variables); false with Error() naming the file and what is wrong.
    bool LoadMat(const std::string& path);
    /// rec's recording: a column for each display whose signal was recorded,
    /// named after the signal, and the recording's settings.
    static CScopeFile FromRecorder(const CRecorder& rec);

    /// Adds a signal's column; a column shorter than the longest is padded
    /// with NaN (empty in CSV).
    void AddSignal(const std::string& name, std::vector<double> samples);
    /// Sets field of "settings" (a valid MATLAB field name).
    void SetSetting(const std::string& field, Setting value);

    /// Samples in the longest column.
    std::size_t Rows() const;
    /// "Index", "Time(sec)", then the signals' names.
    std::vector<std::string> Columns() const;
    /// The value at row of column (as Columns() counts them).
    double Value(std::size_t row, std::size_t column) const;
    const std::vector<std::pair<std::string, Setting>>& Settings() const { return m_arSettings; }

    /// Writes the MAT file through a temporary file; false with Error() set.
    bool SaveMat(const std::string& path);
    /// Writes a header line of the column names, then one line a sample.
    bool SaveCsv(const std::string& path);
    /// Seconds between two rows.
    double SampleTime() const { return m_dSampleTime; }
    /// Why the last load or save failed: the file and the reason.
    const std::string& Error() const { return m_sError; }

private:
    bool Fail(const std::string& path, const std::string& why);

    double m_dSampleTime;
    std::vector<std::pair<std::string, std::vector<double>>> m_arSignals;
    std::vector<std::pair<std::string, Setting>> m_arSettings;
    std::string m_sError;
};

} // namespace tessitor
