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
    /*! Returns when \a address is ready and has answered, with the log and the spies empty. */
    void connectLight(const QString &address);
    /*! The controller that was made last. */
    QLowEnergyController *controller() const { return controllers().constLast(); }
    QList<QLowEnergyController *> controllers() const;
    /*! The service of the only light whose UUID begins with \a prefix. */
    QLowEnergyService *service(const char *prefix) const;
    /*! Deletes what was released to be deleted later. */
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
    /*! Makes a manager that has found the nine lights and scans no more. */
    void init();
    /*! Deletes it, and makes the lights as they were. */
    void cleanup();
};
