// The scope's plot: one display ("Display %d") a recorded signal, stacked
// on a shared time axis "Time(sec)", drawn as the display model says
// (background "Black", trace "White", font "Courier New", axis "Auto" or
// "Manual"). Zoom with the wheel, pan by dragging; a click places cursor 1,
// a Shift-click cursor 2, and the readout gives the time and value
// differences. The same view renders a scope file to PNG, SVG or PDF.
#pragma once

#include <qcustomplot.h>

#include <QString>
#include <vector>

#include "recorder/scopefile.h"
#include "recorder/viewwindow.h"

namespace tessitor::gui {

class CScopeView : public QCustomPlot {
    Q_OBJECT
public:
    /// Height of one display when a file is rendered, in pixels.
    static constexpr int kRenderDisplayHeight = 260;
    static constexpr int kRenderWidth = 1200;

    explicit CScopeView(QWidget* parent = nullptr);

    /// Shows file's signals, one display each, looking as looks says (the
    /// first looks for the first display; missing ones take the defaults).
    void Show(const CScopeFile& file, const std::vector<CViewWindow>& looks = {});
    /// The recording shown.
    const CScopeFile& Recording() const { return m_Recording; }
    /// Number of displays shown.
    int Displays() const { return static_cast<int>(m_arGraphs.size()); }
    /// The trace of display n (from 0).
    QCPGraph* Trace(int n) const { return m_arGraphs.at(static_cast<std::size_t>(n)); }

    /// Puts cursor which (0 or 1) at time seconds.
    void SetCursor(int which, double time);
    /// "T1 ... T2 ... dT ..." and each display's values at the cursors.
    QString CursorText() const;
    /// Fits every display to its data (the time axis too).
    void FitAll();

    /// Writes the view to path: .png, .svg or .pdf (by its extension);
    /// empty, or why it failed.
    QString Export(const QString& path, int width = 0, int height = 0);
    /// Renders the scope file at path to out without a window: empty, or
    /// why not.
    static QString Render(const QString& path, const QString& out);

signals:
    /// A cursor moved.
    void CursorsChanged();

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;

private:
    double ValueAt(int display, double time) const;
    void PlaceCursorLines();

    CScopeFile m_Recording{0};
    std::vector<QCPGraph*> m_arGraphs;
    std::vector<QCPItemStraightLine*> m_arCursorLines;
    double m_arCursor[2] = {0, 0};
    bool m_abCursorSet[2] = {false, false};
    QPoint m_PressPos;
};

} // namespace tessitor::gui
