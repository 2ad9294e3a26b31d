#pragma once

#include "CorvelKXHost.h"
#include "LightsModel.h"
#include "LogModel.h"
#include "ui_MainWindow.h"

#include <functional>

/*!
    The main window: the table of the lights, the commands, the payload, the log, and a line that
    tells what is wrong. Owns the Host. Closing it first disconnects the lights, for two seconds at
    the most.
*/
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    /*! Loads the plugin from \a plugin, or the usual one if that is empty, and begins to scan. */
    explicit MainWindow(const QString &plugin, QWidget *parent = nullptr);

    CorvelKX::Host *host() { return &m_host; }
    void showDebugLog() { m_ui.log->showDebugLog(); }
    /*! Whether the user asked for virtual lights, with which the program then restarts. */
    bool wantsVirtualLights() const { return m_wantsVirtualLights; }

signals:
    /*! The window was closed and the lights are disconnected; \a status is the exit status. */
    void finished(int status);

protected:
    bool eventFilter(QObject *watched, QEvent *event) override;
    void closeEvent(QCloseEvent *event) override;

private:
    void prepareForKeyboardAndReader();
    void connectActions();
    void connectCommand(QAction *action, bool isConnection,
                        const std::function<void(CorvelKX::Light *)> &act);
    void restoreSettings();
    void scan();
    void focusFilter();
    void updateActions();
    void updateScan();
    void updateProblem();
    void onClosed(const QStringList &stillConnected);

    CorvelKX::Host m_host;
    LightsModel m_model;
    LogModel m_log;
    Ui::MainWindow m_ui {};
    bool m_isClosed = false;
    bool m_wantsVirtualLights = false;
};
