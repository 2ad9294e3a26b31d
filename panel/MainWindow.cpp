#include "MainWindow.h"

#include "VirtualLights.h"

#include <QAbstractItemView>
#include <QApplication>
#include <QCloseEvent>
#include <QMessageBox>
#include <QSettings>
#include <QToolButton>

#include <algorithm>

using CorvelKX::Host;
using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;

MainWindow::MainWindow(const QString &plugin, QWidget *parent)
    : QMainWindow(parent), m_model(&m_host), m_log(&m_host)
{
    m_ui.setupUi(this);
    if (areVirtualLightsHere())
        setWindowTitle(tr("%1 (virtual)").arg(windowTitle()));
    m_ui.lights->setLights(&m_model);
    m_ui.plot->setModel(&m_model);
    m_ui.log->setLog(&m_log);
    prepareForKeyboardAndReader();
    qApp->installEventFilter(this);
    connectActions();
    connect(&m_model, &LightsModel::sampled, this, &MainWindow::updateScan);
    connect(&m_host, &Host::scanningChanged, this, &MainWindow::updateScan);
    connect(&m_host, &Host::lightAdded, this, [this](const Light *light) {
        m_ui.log->addLight(light->address());
        updateActions();
    });
    connect(&m_host, &Host::lightRemoved, this, &MainWindow::updateActions);
    connect(&m_host, &Host::lightStateChanged, this, &MainWindow::updateActions);
    connect(&m_host, &Host::errorChanged, this, &MainWindow::updateProblem);
    connect(&m_host, &Host::closed, this, &MainWindow::onClosed);
    restoreSettings();
    updateActions();
    m_ui.lights->setFocus();
    if (m_host.load(plugin))
        scan();
    updateScan();
}

// By default, Tab skips the buttons of a tool bar, and the controls that Qt adds have no names.
void MainWindow::prepareForKeyboardAndReader()
{
    const auto buttons = m_ui.toolBar->findChildren<QToolButton *>();
    for (QToolButton *button : buttons) {
        button->setFocusPolicy(Qt::TabFocus);
        if (button->text().isEmpty())
            button->setAccessibleName(tr("More commands"));
    }
    for (QLineEdit *filter : { m_ui.filter, m_ui.log->filter() })
        filter->findChild<QToolButton *>()->setAccessibleName(tr("Clear the filter"));
    const auto boxes = findChildren<QComboBox *>();
    for (QComboBox *box : boxes)
        box->view()->setAccessibleName(tr("%1: list").arg(box->accessibleName()));
}

void MainWindow::connectActions()
{
    const auto connectToDevice = [this](Light *light) {
        light->connectToDevice(std::chrono::seconds(m_ui.limit->value()));
    };
    connect(m_ui.scan, &QAction::triggered, this, &MainWindow::scan);
    connect(m_ui.stop, &QAction::triggered, &m_host, &Host::stopScan);
    connectCommand(m_ui.connectLights, true, connectToDevice);
    connectCommand(m_ui.reconnect, true, [=](Light *light) {
        const bool isKept = light->keepsConnected();
        light->disconnectFromDevice();
        connectToDevice(light);
        light->setKeepConnected(isKept);
    });
    connectCommand(m_ui.disconnectLights, false, &Light::disconnectFromDevice);
    connectCommand(m_ui.forget, false, &Light::forget);
    connectCommand(m_ui.keep, true, [](Light *light) { light->setKeepConnected(true); });
    connectCommand(m_ui.unkeep, false, [](Light *light) { light->setKeepConnected(false); });
    m_ui.forget->setShortcutContext(Qt::WidgetShortcut); // in a line edit, the key deletes text
    connect(m_ui.selectLights, &QAction::triggered, m_ui.lights, &LightsView::selectAll);
    connect(m_ui.exportLog, &QAction::triggered, m_ui.log, &LogView::exportLog);
    connect(m_ui.copyLog, &QAction::triggered, m_ui.log, &LogView::copy);
    connect(m_ui.clearLog, &QAction::triggered, &m_log, &LogModel::clear);
    connect(m_ui.filterAction, &QAction::triggered, this, &MainWindow::focusFilter);
    connect(m_ui.quit, &QAction::triggered, this, &MainWindow::close);
    connect(m_ui.about, &QAction::triggered, qApp, &QApplication::aboutQt);
    connect(m_ui.lights, &LightsView::selectedLightsChanged, this, &MainWindow::updateActions);
    connect(m_ui.lights, &LightsView::doubleClicked, m_ui.connectLights, &QAction::trigger);
    connect(m_ui.filter, &QLineEdit::textChanged, m_ui.lights, &LightsView::setFilter);
    connect(m_ui.scanAgain, &QPushButton::clicked, this, &MainWindow::scan);
    connect(m_ui.useVirtualLights, &QPushButton::clicked, this, [this] {
        m_wantsVirtualLights = true;
        close();
    });
}

// A command for all selected lights. Connecting stops the scan, which would slow it down.
void MainWindow::connectCommand(QAction *action, bool isConnection,
                                const std::function<void(Light *)> &act)
{
    m_ui.lights->addAction(action);
    connect(action, &QAction::triggered, this, [=] {
        if (isConnection)
            m_host.stopScan();
        const auto lights = m_ui.lights->selectedLights();
        for (Light *light : lights) {
            m_log.append(LogModel::Kind::Command, light->address(), action->iconText());
            act(light);
        }
    });
}

void MainWindow::restoreSettings()
{
    const QSettings settings;
    resize(fontMetrics().averageCharWidth() * 190, fontMetrics().height() * 56);
    restoreGeometry(settings.value(u"geometry"_s).toByteArray());
    m_ui.upper->restoreState(settings.value(u"upper"_s).toByteArray());
    m_ui.lower->restoreState(settings.value(u"lower"_s).toByteArray());
    m_ui.limit->setValue(settings.value(u"limit"_s, m_ui.limit->value()).toInt());
}

void MainWindow::scan()
{
    m_log.append(LogModel::Kind::Command, {}, m_ui.scan->iconText());
    m_host.startScan();
}

// If the focus is in the log, its filter; otherwise that of the lights.
void MainWindow::focusFilter()
{
    const bool isInLog = m_ui.log->isAncestorOf(QApplication::focusWidget());
    QLineEdit *filter = isInLog ? m_ui.log->filter() : m_ui.filter;
    filter->setFocus();
    filter->selectAll();
}

void MainWindow::updateActions()
{
    const auto lights = m_ui.lights->selectedLights();
    const auto any = [&lights](auto is) { return std::any_of(lights.cbegin(), lights.cend(), is); };
    m_ui.connectLights->setEnabled(any([](Light *light) { return !light->isReady(); }));
    m_ui.disconnectLights->setEnabled(
            any([](Light *l) { return l->state() > Light::State::Seen; }));
    m_ui.keep->setEnabled(any([](Light *light) { return !light->keepsConnected(); }));
    m_ui.unkeep->setEnabled(any(std::mem_fn(&Light::keepsConnected)));
    m_ui.reconnect->setEnabled(!lights.isEmpty());
    m_ui.forget->setEnabled(!lights.isEmpty());
    m_ui.send->setLights(lights);
    m_ui.plot->setLight(lights.value(0));
    const auto all = m_host.lights();
    const auto ready = std::count_if(all.cbegin(), all.cend(), std::mem_fn(&Light::isReady));
    statusBar()->showMessage(tr("Lights: %1, ready: %2").arg(all.size()).arg(ready));
}

void MainWindow::updateScan()
{
    m_ui.scan->setEnabled(m_host.isLoaded());
    m_ui.stop->setEnabled(m_host.isScanning());
    m_ui.scanTime->setText(
            m_host.isScanning()
                    ? tr("Scanning, %1 s left").arg((m_host.remainingScanTime() + 999) / 1000)
                    : tr("Not scanning"));
}

void MainWindow::updateProblem()
{
    using Error = Host::Error;
    const QHash<Error, QString> help {
        { Error::NoAdapter, tr("Plug an adapter in, start the Bluetooth service, or ask the "
                               "administrator for the permission.") },
        { Error::AdapterOff, tr("Switch it on in the settings of the desktop.") },
        { Error::NoPermission, tr("Allow it in the settings of the system.") },
        { Error::NotResponding, tr("Restart the Bluetooth service, or the computer.") },
        { Error::PluginError, tr("Start the program with another file after --plugin.") },
    };
    m_ui.problemText->setText(u"⚠  "_s + m_host.errorString() + u' ' + help.value(m_host.error()));
    m_ui.scanAgain->setVisible(m_host.isLoaded());
    m_ui.useVirtualLights->setVisible(hasVirtualLights && !areVirtualLightsHere());
    m_ui.problem->setVisible(m_host.error() != Error::NoError);
}

// A line edit would use Ctrl+E to move its cursor.
bool MainWindow::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::ShortcutOverride
        && static_cast<QKeyEvent *>(event)->keyCombination() == m_ui.exportLog->shortcut()[0])
        return true;
    return QMainWindow::eventFilter(watched, event);
}

void MainWindow::closeEvent(QCloseEvent *event)
{
    event->setAccepted(m_isClosed);
    if (m_isClosed)
        return;
    QSettings settings;
    settings.setValue(u"geometry"_s, saveGeometry());
    settings.setValue(u"upper"_s, m_ui.upper->saveState());
    settings.setValue(u"lower"_s, m_ui.lower->saveState());
    settings.setValue(u"limit"_s, m_ui.limit->value());
    setEnabled(false);
    m_host.close(std::chrono::seconds(2));
}

void MainWindow::onClosed(const QStringList &stillConnected)
{
    m_isClosed = true;
    if (stillConnected.isEmpty() || m_wantsVirtualLights) {
        close();
        emit finished(EXIT_SUCCESS);
        return;
    }
    auto *box = new QMessageBox(QMessageBox::Warning, windowTitle(),
                                tr("%1 did not disconnect in time, and may still be connected.")
                                        .arg(stillConnected.join(u", "_s)),
                                QMessageBox::Close, this);
    connect(box, &QMessageBox::finished, this, [this] {
        close();
        emit finished(EXIT_FAILURE);
    });
    setEnabled(true);
    box->open();
}
