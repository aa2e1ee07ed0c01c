#include "tests/gui/guitesthelpers.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QMessageBox>
#include <qcustomplot.h>

namespace tessitor::gui::test {

namespace {

constexpr int kLookIntervalMs = 50;

} // namespace

CBoxWatcher::CBoxWatcher(int answer, QString shotName) : m_nAnswer(answer), m_sShotName(std::move(shotName))
{
    // A timer fires inside the box's own event loop too, so a box shown
    // with exec() is answered while the test waits.
    connect(&m_Timer, &QTimer::timeout, this, &CBoxWatcher::Look);
    m_Timer.start(kLookIntervalMs);
}

void CBoxWatcher::Look()
{
    for (QWidget* widget : QApplication::topLevelWidgets()) {
        auto* box = qobject_cast<QMessageBox*>(widget);
        if (!box || !box->isVisible() || box->property("answered").toBool())
            continue;
        box->setProperty("answered", true);
        m_arSeen << box->windowTitle() + "|" + box->text();
        if (!m_sShotName.isEmpty())
            Shoot(box, m_sShotName);
        QAbstractButton* button = box->button(static_cast<QMessageBox::StandardButton>(m_nAnswer));
        if (!button)
            button = box->buttons().value(0);
        if (button)
            button->click();
    }
}

void Shoot(QWidget* widget, const QString& name)
{
    QString folder = qEnvironmentVariable("TESSITOR_GUI_SHOTS");
    if (folder.isEmpty())
        return;
    QDir().mkpath(folder);
    // The picture of the settled window: pending layouts done, and every plot
    // drawn at its new size (a plot redraws on resize only once the event loop
    // comes round, and would otherwise show its old picture cut to the new size).
    QCoreApplication::sendPostedEvents();
    QCoreApplication::processEvents();
    for (QCustomPlot* plot : widget->findChildren<QCustomPlot*>())
        plot->replot(QCustomPlot::rpImmediateRefresh);
    widget->grab().save(folder + "/" + name + ".png");
}

void UseFreshSettings()
{
    static QTemporaryDir folder;
    qputenv("TESSITOR_CONFIG", (folder.path() + "/tessitor.ini").toUtf8());
    qputenv("XDG_STATE_HOME", folder.path().toUtf8());
}

} // namespace tessitor::gui::test
