// The recorder of the BreNol family: fixed slots, a signal table of its own
// (name to drive signal code), a trigger named by that code, and levels
// sent also as integers (their first two decimals).
#pragma once

#include "recorder/recorder.h"

namespace tessitor {

class CRecBreNol : public CRecorder {
public:
    /// The section of "Vectors.ini" that names this family's signals.
    static constexpr char kFamily[] = "BreNol";

    /// Fills the fixed slots and builds the trigger list; sends nothing.
    explicit CRecBreNol(CCommunication* pCom);
    ~CRecBreNol() override { StopWorker(); }

    const char* FamilyName() const override { return kFamily; }
    /// The drive signal code of name (exact, first match), 0 when not listed.
    static std::int32_t SignalCode(const std::string& name);
    /// The first name of code in the signal table, or "" when none.
    static std::string SignalName(std::int32_t code);
    /// A level's integer form: its first two decimals, truncated
    /// (1.2345 gives 23).
    static std::int32_t LevelHundredths(double level);

protected:
    void BuildTriggerList() override;
    std::int32_t TriggerSetting(int row) const override;
    int SetupTrigger() override;
};

} // namespace tessitor
