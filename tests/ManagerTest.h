#pragma once

#include "BLEManager.h"
#include "Lights.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>

/*! A test of a manager that lives on the test's own thread, among virtual lights. */
class ManagerTest : public QObject
{
    Q_OBJECT

protected:
    static constexpr QLatin1String plain { "C0:FF:EE:00:00:02" };   //!< services a002
    static constexpr QLatin1String secured { "C0:FF:EE:00:00:03" }; //!< fff0 and f000ffc0

    void findLights();
    /*! Connects \a address and waits for its first answer; then empties the log and the spies. */
    void connectLight(const QString &address);
    /*! The controller that was created last. */
    QLowEnergyController *controller() const { return controllers().constLast(); }
    QList<QLowEnergyController *> controllers() const;
    /*! The service of the only light whose UUID begins with \a prefix. */
    QLowEnergyService *service(const char *prefix) const;
    /*! Carries out pending deleteLater() calls. */
    static void deleteReleased();
    void clear();

    Lights m_lights;
    std::unique_ptr<LogRecorder> m_log;
    std::unique_ptr<BLEManager> m_manager;
    std::unique_ptr<QSignalSpy> m_discovered;
    std::unique_ptr<QSignalSpy> m_connected;
    std::unique_ptr<QSignalSpy> m_disconnected;
    std::unique_ptr<QSignalSpy> m_received;

private slots:
    /*! Makes a manager that has discovered the nine lights; the scan is stopped. */
    void init();
    /*! Deletes the manager and restores the lights. */
    void cleanup();
};
