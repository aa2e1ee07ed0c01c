// The recorder of the Talvina family (processor types "DSP" and "STP"):
// its sixteen slots are mapped to signals on the drive ("RV[n]=code") and
// named from the "Talvina" section of "Vectors.ini"; the trigger list names
// a row by its index.
#pragma once

#include "recorder/recorder.h"

namespace tessitor {

class CRecTalvina : public CRecorder {
public:
    /// The section of "Vectors.ini" that names this family's signals.
    static constexpr char kFamily[] = "Talvina";
    /// The signal code of a slot's "Digital Inputs", a bit field: its
    /// trigger row is a combination of inputs.
    static constexpr std::uint32_t kInputsCode = 4;

    /// Reads the slot mapping from the drive ("RV[0]".."RV[15]") and builds
    /// the trigger list; link failures are thrown.
    explicit CRecTalvina(CCommunication* pCom);
    ~CRecTalvina() override { StopWorker(); }

    const char* FamilyName() const override { return kFamily; }
    /// Asks the drive for every slot's signal ("RV[%d]") and rebuilds the
    /// trigger list.
    void ReadSlots();
    /// Maps slot to signal code (-1: no signal) with "RV[%d]=%d", reads the
    /// slot back and rebuilds the trigger list.
    void MapSlot(int slot, std::int32_t code);

protected:
    void BuildTriggerList() override;
    std::int32_t TriggerSetting(int row) const override { return row; }
    int SetupTrigger() override;

private:
    void ReadSlot(int slot);
};

} // namespace tessitor
