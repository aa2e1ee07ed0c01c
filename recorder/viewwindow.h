// One scope display as a model, without drawing: its name ("Display %d"),
// the signal it shows, its sample store and how it is to be drawn. A GUI
// draws it; the scope data file takes its signal and samples.
#pragma once

#include <string>
#include <utility>

#include "recorder/recordsettings.h"

namespace tessitor {

class CVector;

class CViewWindow {
public:
    /// Axis labels and the look of a display.
    static constexpr char kTimeAxisLabel[] = "Time(sec)";
    static constexpr char kFontName[] = "Courier New";

    /// Display number n (from 1) showing signal, samples in store (not owned).
    CViewWindow(int n, std::string signal, CVector* store)
        : m_sName("Display " + std::to_string(n)), m_sSignal(std::move(signal)), m_pStore(store)
    {
    }

    const std::string& GetName() const { return m_sName; }
    const std::string& GetSignal() const { return m_sSignal; }
    bool ShowsSignal() const { return m_sSignal != kNoSignal; }
    CVector* GetStore() const { return m_pStore; }

    std::string m_sBackColor = "Black";
    std::string m_sTraceColor = "White";
    std::string m_sFont = kFontName;
    std::string m_sAxisMode = "Auto"; ///< "Auto" or "Manual"

private:
    std::string m_sName;
    std::string m_sSignal;
    CVector* m_pStore;
};

} // namespace tessitor
