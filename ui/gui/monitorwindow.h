// The motion monitor of one drive: position ("PX"), velocity ("VX"),
// current ("IQ") and the status bits ("SR"), read at the rate the user
// sets (10 Hz unless changed), with a strip chart of the last seconds.
#pragma once

#include <QTimer>
#include <QWidget>
#include <array>

class QCustomPlot;
class QLabel;
class QSpinBox;

namespace tessitor::gui {

class CDriveSession;

class CMonitorWindow : public QWidget {
    Q_OBJECT
public:
    static constexpr int kDefaultRateHz = 10;
    /// Seconds the strip chart shows.
    static constexpr double kStripSeconds = 10;
    /// The commands read each turn, in this order.
    static constexpr std::array<const char*, 4> kCommands = {"PX", "VX", "IQ", "SR"};

    /// The monitor of session (not owned; outlives this window).
    CMonitorWindow(CDriveSession* session, QWidget* parent = nullptr);

    /// Turns a second.
    void SetRate(int hz);
    /// Readings shown so far.
    int Readings() const { return m_nReadings; }
    /// The text shown for kCommands[n].
    QString ValueText(int n) const;

private:
    void Read();
    void Show(const std::array<QString, 4>& values, double seconds);
    void ShowError(const QString& text);

    CDriveSession* m_pSession;
    QTimer m_Timer;
    bool m_bReading = false; // one turn at a time: a slow drive is not flooded
    int m_nReadings = 0;
    double m_dStart = -1;
    QSpinBox* m_pRate;
    std::array<QLabel*, 4> m_arValues{};
    QLabel* m_pStatusBits;
    QLabel* m_pError;
    QCustomPlot* m_pStrip;
};

} // namespace tessitor::gui
