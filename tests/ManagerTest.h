#pragma once

#include "BLEManager.h"
#include "TestSupport.h"

#include <memory>

/*! A test of a manager that lives on the test's own thread, among virtual lights. */
class ManagerTest : public QObject
{
    Q_OBJECT

protected:
    static constexpr QLatin1String plain { "C0:FF:EE:00:00:02" };   //!< services a002
    static constexpr QLatin1String secured { "C0:FF:EE:00:00:03" }; //!< fff0 and f000ffc0

    /*! Makes a manager that has found the nine lights and scans no more. */
    void createManager();
    /*! Deletes it, waits until no light is connected, and makes the lights as they were. */
    void deleteManager();
    void findLights();

    Lights m_lights;
    std::unique_ptr<BLEManager> m_manager;
    std::unique_ptr<LogRecorder> m_log;
};
