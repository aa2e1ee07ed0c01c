#include "ui/gui/scopeview.h"

#include <QFileInfo>
#include <QSvgGenerator>
#include <cmath>

#include "core/strformat.h"

namespace tessitor::gui {

namespace {

constexpr int kClickSlackPx = 4; // a press and release closer than this is a click, not a drag
const QColor kCursorColors[2] = {QColor(255, 200, 0), QColor(0, 200, 255)};

QColor ColorOf(const std::string& name, const QColor& fallback)
{
    QColor color(QString::fromStdString(name).toLower());
    return color.isValid() ? color : fallback;
}

} // namespace

CScopeView::CScopeView(QWidget* parent) : QCustomPlot(parent)
{
    setInteractions(QCP::iRangeDrag | QCP::iRangeZoom);
    setNoAntialiasingOnDrag(true);
    setMinimumSize(400, 240);
    plotLayout()->clear();
}

void CScopeView::Show(const CScopeFile& file, const std::vector<CViewWindow>& looks)
{
    m_Recording = file;
    clearItems();
    clearGraphs();
    plotLayout()->clear();
    m_arGraphs.clear();
    m_arCursorLines.clear();

    const std::vector<std::string> columns = file.Columns();
    const std::size_t rows = file.Rows();
    QVector<double> times(static_cast<int>(rows));
    for (std::size_t row = 0; row < rows; ++row)
        times[static_cast<int>(row)] = file.Value(row, 1);

    auto* margins = new QCPMarginGroup(this);
    QList<QCPAxis*> timeAxes;
    for (std::size_t column = 2; column < columns.size(); ++column) {
        int display = static_cast<int>(column - 2);
        CViewWindow look = static_cast<std::size_t>(display) < looks.size()
            ? looks[static_cast<std::size_t>(display)]
            : CViewWindow(display + 1, columns[column], nullptr);
        QFont font(QString::fromStdString(look.m_sFont), 9);
        QColor back = ColorOf(look.m_sBackColor, Qt::black);
        QColor trace = ColorOf(look.m_sTraceColor, Qt::white);
        QColor ink = back.lightness() < 128 ? QColor(Qt::white) : QColor(Qt::black);

        auto* rect = new QCPAxisRect(this);
        plotLayout()->addElement(display, 0, rect);
        rect->setMarginGroup(QCP::msLeft | QCP::msRight, margins);
        rect->setBackground(back);
        rect->setRangeDrag(Qt::Horizontal | Qt::Vertical);
        rect->setRangeZoom(Qt::Horizontal | Qt::Vertical);
        for (QCPAxis* axis : rect->axes()) {
            axis->setBasePen(QPen(ink));
            axis->setTickPen(QPen(ink));
            axis->setSubTickPen(QPen(ink));
            axis->setTickLabelFont(font);
            axis->setLabelFont(font);
            axis->grid()->setPen(QPen(QColor(128, 128, 128, 110), 0, Qt::DotLine));
        }
        QCPAxis* time = rect->axis(QCPAxis::atBottom);
        QCPAxis* value = rect->axis(QCPAxis::atLeft);
        time->setLabel(CViewWindow::kTimeAxisLabel);
        value->setLabel(QString::fromStdString(look.GetName() + ": " + columns[column]));
        timeAxes << time;

        QCPGraph* graph = addGraph(time, value);
        graph->setName(QString::fromStdString(columns[column]));
        graph->setPen(QPen(trace, 0));
        graph->setAdaptiveSampling(true);
        QVector<double> values(static_cast<int>(rows));
        for (std::size_t row = 0; row < rows; ++row)
            values[static_cast<int>(row)] = file.Value(row, column);
        graph->setData(times, values, true);
        graph->rescaleAxes();
        if (look.m_sAxisMode != "Auto")
            value->setRange(value->range()); // "Manual": the user's zoom is kept as it is
        m_arGraphs.push_back(graph);

        for (int which = 0; which < 2; ++which) {
            auto* line = new QCPItemStraightLine(this);
            line->setClipAxisRect(rect);
            line->point1->setAxes(time, value);
            line->point2->setAxes(time, value);
            line->setPen(QPen(kCursorColors[which], 0, Qt::DashLine));
            line->setVisible(false);
            m_arCursorLines.push_back(line);
        }
    }
    // Every display shares the time range: zoom or pan one, all follow.
    for (QCPAxis* axis : timeAxes)
        connect(axis, qOverload<const QCPRange&>(&QCPAxis::rangeChanged), this, [timeAxes](const QCPRange& range) {
            for (QCPAxis* other : timeAxes)
                if (other->range() != range)
                    other->setRange(range);
        });
    m_abCursorSet[0] = m_abCursorSet[1] = false;
    replot();
    emit CursorsChanged();
}

void CScopeView::FitAll()
{
    for (QCPGraph* graph : m_arGraphs)
        graph->rescaleAxes();
    replot();
}

double CScopeView::ValueAt(int display, double time) const
{
    double sampleTime = m_Recording.SampleTime();
    if (sampleTime <= 0 || m_Recording.Rows() == 0)
        return std::nan("");
    long row = std::lround(time / sampleTime);
    row = std::clamp(row, 0L, static_cast<long>(m_Recording.Rows()) - 1);
    return m_Recording.Value(static_cast<std::size_t>(row), static_cast<std::size_t>(display) + 2);
}

void CScopeView::SetCursor(int which, double time)
{
    m_arCursor[which] = time;
    m_abCursorSet[which] = true;
    PlaceCursorLines();
    replot();
    emit CursorsChanged();
}

void CScopeView::PlaceCursorLines()
{
    for (std::size_t i = 0; i < m_arCursorLines.size(); ++i) {
        int which = static_cast<int>(i % 2);
        QCPItemStraightLine* line = m_arCursorLines[i];
        line->point1->setCoords(m_arCursor[which], 0);
        line->point2->setCoords(m_arCursor[which], 1);
        line->setVisible(m_abCursorSet[which]);
    }
}

QString CScopeView::CursorText() const
{
    if (!m_abCursorSet[0] && !m_abCursorSet[1])
        return "Click to place cursor 1, Shift-click for cursor 2; wheel zooms, dragging pans.";
    std::string text = StrFormat("T1=%.6f s", m_arCursor[0]);
    if (m_abCursorSet[1])
        text += StrFormat("  T2=%.6f s  dT=%.6f s", m_arCursor[1], m_arCursor[1] - m_arCursor[0]);
    for (int display = 0; display < Displays(); ++display) {
        double v1 = ValueAt(display, m_arCursor[0]);
        text += StrFormat("\n%s: V1=%g", Trace(display)->name().toStdString().c_str(), v1);
        if (m_abCursorSet[1]) {
            double v2 = ValueAt(display, m_arCursor[1]);
            text += StrFormat("  V2=%g  dV=%g", v2, v2 - v1);
        }
    }
    return QString::fromStdString(text);
}

void CScopeView::mousePressEvent(QMouseEvent* event)
{
    m_PressPos = event->pos();
    QCustomPlot::mousePressEvent(event);
}

void CScopeView::mouseReleaseEvent(QMouseEvent* event)
{
    QCustomPlot::mouseReleaseEvent(event);
    if (event->button() != Qt::LeftButton || (event->pos() - m_PressPos).manhattanLength() > kClickSlackPx)
        return;
    QCPAxisRect* rect = axisRectAt(event->pos());
    if (!rect)
        return;
    double time = rect->axis(QCPAxis::atBottom)->pixelToCoord(event->pos().x());
    SetCursor(event->modifiers() & Qt::ShiftModifier ? 1 : 0, time);
}

QString CScopeView::Export(const QString& path, int width, int height)
{
    QString suffix = QFileInfo(path).suffix().toLower();
    bool ok = false;
    if (suffix == "png") {
        ok = savePng(path, width, height);
    } else if (suffix == "pdf") {
        ok = savePdf(path, width, height);
    } else if (suffix == "svg") {
        QSvgGenerator svg;
        svg.setFileName(path);
        int w = width > 0 ? width : this->width();
        int h = height > 0 ? height : this->height();
        svg.setSize(QSize(w, h));
        svg.setViewBox(QRect(0, 0, w, h));
        QCPPainter painter;
        ok = painter.begin(&svg);
        if (ok) {
            toPainter(&painter, w, h);
            ok = painter.end();
        }
        ok = ok && QFileInfo(path).size() > 0;
    } else {
        return path + ": the picture is written as .png, .svg or .pdf";
    }
    return ok ? QString() : path + ": the picture cannot be written";
}

QString CScopeView::Render(const QString& path, const QString& out)
{
    CScopeFile file(0);
    if (!file.LoadMat(path.toStdString()))
        return QString::fromStdString(file.Error());
    if (file.Columns().size() <= 2)
        return path + ": the file holds no recorded signal";
    CScopeView view;
    int height = kRenderDisplayHeight * static_cast<int>(file.Columns().size() - 2);
    view.resize(kRenderWidth, height);
    view.Show(file);
    return view.Export(out, kRenderWidth, height);
}

} // namespace tessitor::gui
