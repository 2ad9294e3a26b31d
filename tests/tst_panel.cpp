#include "Lights.h"
#include "MainWindow.h"
#include "Panel.h"
#include "VirtualLights.h"

#include <QAccessible>
#include <QApplication>
#include <QMessageBox>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <memory>
#include <unistd.h>

using Qt::StringLiterals::operator""_s;

namespace {

const QString first = u"C0:FF:EE:00:00:01"_s;
const QString second = u"C0:FF:EE:00:00:A2"_s;
constexpr int state = LightsModel::State;
constexpr int received = LightsModel::ReceivedCount;

// Finds a control by its accessible name, as a screen reader does.
template<typename Control = QWidget>
Control *find(const QString &name)
{
    const auto all = QApplication::allWidgets();
    for (QWidget *widget : all) {
        auto *control = qobject_cast<Control *>(widget);
        const auto *accessible = QAccessible::queryAccessibleInterface(control);
        if (control && accessible
            && (widget->accessibleName() == name || accessible->text(QAccessible::Name) == name))
            return control;
    }
    qFatal("There is no \"%s\".", qPrintable(name));
}

void click(const QString &button)
{
    auto *found = find<QAbstractButton>(button);
    QVERIFY2(found->isEnabled() && found->isVisible(), qPrintable(button));
    QTest::mouseClick(found, Qt::LeftButton);
}

// How many controls a screen reader could not tell apart.
int countNameless(const QAccessibleInterface *control)
{
    const QSet<int> roles { QAccessible::Button, QAccessible::ButtonMenu,   QAccessible::CheckBox,
                            QAccessible::List,   QAccessible::EditableText, QAccessible::SpinBox,
                            QAccessible::Table,  QAccessible::MenuItem,     QAccessible::ComboBox };
    int count = int(roles.contains(control->role()) && control->text(QAccessible::Name).isEmpty());
    for (int i = 0; i < control->childCount(); ++i)
        count += countNameless(control->child(i));
    return count;
}

void type(const QString &edit, const QString &text)
{
    QTest::keyClick(find(edit), Qt::Key_A, Qt::ControlModifier);
    QTest::keyClick(find(edit), Qt::Key_Backspace);
    QTest::keyClicks(find(edit), text);
}

} // namespace

// Uses the window with mouse and keyboard.
class TestPanel : public QObject
{
    Q_OBJECT

    QModelIndex cell(const QString &address, int column)
    {
        const QAbstractItemModel *all = m_table->model();
        return all->match(all->index(0, 0), LightsModel::FilterRole, address, 1, Qt::MatchContains)
                .value(0)
                .siblingAtColumn(column);
    }

    bool shows(const QString &address, int column, const QString &text)
    {
        return waitFor([&] { return cell(address, column).data().toString().contains(text); });
    }

    void connectLights(const QStringList &addresses)
    {
        m_table->clearSelection();
        for (const QString &address : addresses)
            QTest::mouseClick(m_table->viewport(), Qt::LeftButton, Qt::ControlModifier,
                              m_table->visualRect(cell(address, LightsModel::Name)).center());
        click(u"Connect"_s);
        for (const QString &address : addresses)
            QVERIFY(shows(address, state, u"ready"_s));
    }

    QTemporaryDir m_directory;
    Lights m_lights;
    std::unique_ptr<MainWindow> m_window;
    QTableView *m_table = nullptr;

private slots:
    void init()
    {
        qputenv("XDG_CONFIG_HOME", m_directory.path().toLocal8Bit()); // not the user's settings
        m_window = std::make_unique<MainWindow>(QString());
        m_table = find<QTableView>(u"Lights"_s);
        m_window->show();
        QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
        QVERIFY(waitFor([this] { return m_table->model()->rowCount() == 9; }));
    }

    void cleanup()
    {
        QSignalSpy finished(m_window.get(), &MainWindow::finished);
        QApplication::setActiveWindow(m_window.get()); // no window manager does so after a dialog
        QTest::keyClick(m_window.get(), Qt::Key_Q, Qt::ControlModifier);
        QVERIFY(waitFor([&] { return finished.size() == 1; }));
        QCOMPARE(finished.at(0).at(0).toInt(), EXIT_SUCCESS);
        QVERIFY(m_lights.command(u"connected"_s).isEmpty());
        m_window.reset();
        m_lights.restore();
    }

    void fromScanToForget()
    {
        click(u"Stop"_s);
        QTest::keyClick(m_window.get(), Qt::Key_F5); // finds the same lights again
        QVERIFY(waitFor([this] { return cell(first, LightsModel::SeenCount).data().toInt() > 1; }));
        QCOMPARE(countNameless(QAccessible::queryAccessibleInterface(m_window.get())), 0);
        QTest::keyClick(m_window.get(), Qt::Key_F, Qt::ControlModifier);
        QTest::keyClicks(QApplication::focusWidget(), u"162"_s);
        QCOMPARE(m_table->model()->rowCount(), 1);
        type(u"Filter lights"_s, {});
        QCOMPARE(m_table->model()->rowCount(), 9);

        connectLights({ first, second });
        QVERIFY(!m_window->host()->isScanning());
        QTest::keyClicks(find(u"Payload"_s), u"0102 ff"_s);
        QTest::keyClick(find(u"Payload"_s), Qt::Key_Return);
        QVERIFY(shows(first, received, u"1"_s) && shows(second, received, u"1"_s));
        QCOMPARE(m_lights.payloads(second).constLast(), u"request 0102ff"_s);
        click(u"Disconnect"_s);
        QVERIFY(shows(first, state, u"seen"_s) && shows(second, state, u"seen"_s));
        m_table->setFocus();
        QTest::keyClick(m_table, Qt::Key_Delete);
        QVERIFY(waitFor([this] { return m_table->model()->rowCount() == 7; }));
    }

    void payloads()
    {
        connectLights({ first });
        auto *payload = find<QLineEdit>(u"Payload"_s);
        type(u"Payload"_s, u"01 2"_s);
        QVERIFY(payload->accessibleDescription().contains(u"\"2\""_s));
        QTest::keyClick(payload, Qt::Key_Return); // invalid, so nothing is sent
        QTest::keyClicks(payload, u"0"_s);
        QTest::keyClick(payload, Qt::Key_Return);
        QTest::keyClick(find(u"Payload mode"_s), Qt::Key_Down);
        type(u"Payload"_s, u"20"_s); // would be valid hexadecimal, but Text is selected
        click(u"Send"_s);
        QVERIFY(shows(first, received, u"2"_s));
        QCOMPARE(m_lights.payloads(first), QStringList({ u"command 0120"_s, u"command 3230"_s }));

        for (const auto key : { Qt::Key_Up, Qt::Key_Up })
            QTest::keyClick(payload, key);
        QCOMPARE(payload->text(), u"01 20"_s);
        QTest::keyClick(payload, Qt::Key_Down);
        click(u"Repeat every"_s);
        type(u"Repeat interval"_s, u"10"_s);
        type(u"Repeat count"_s, u"5"_s);
        auto *send = find<QPushButton>(u"Send"_s);
        click(u"Send"_s);
        QVERIFY(waitFor([=] { return send->text() == u"Se&nd"_s; })
                && shows(first, received, u"7"_s));
        QCOMPARE(m_lights.payloads(first).count(u"command 3230"_s), 6);

        cleanup();
        init(); // a new window remembers the history and the mode
        QTest::keyClick(find(u"Payload"_s), Qt::Key_Up);
        QCOMPARE(find<QLineEdit>(u"Payload"_s)->text(), u"20"_s);
        QCOMPARE(find<QComboBox>(u"Payload mode"_s)->currentText(), u"Text"_s);
    }

    void log()
    {
        connectLights({ first, second });
        QTest::keyClicks(find(u"Payload mode"_s), u"Text"_s);
        type(u"Payload"_s, u"\"hi\", you"_s);
        click(u"Send"_s);
        QVERIFY(shows(second, received, u"1"_s));
        QTest::keyClicks(find(u"Log of"_s), second);
        type(u"Filter log"_s, u"2268692"_s); // hexadecimal digits of the payload
        QVERIFY(waitFor([] { return find<QTableView>(u"Log"_s)->model()->rowCount() == 2; }));
        QFile file(m_directory.filePath(u"log.csv"_s));
        QTimer::singleShot(0, this, [&file] { // runs in the dialog's event loop
            auto *edit = QApplication::activeModalWidget()->findChild<QLineEdit *>();
            edit->setText(file.fileName());
            click(u"Save"_s);
        });
        QTest::keyClick(m_window.get(), Qt::Key_E, Qt::ControlModifier);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().split('\n');
        QCOMPARE(lines.size(), 4); // the header, two lines, and the empty rest
        QCOMPARE(lines.first(), "\"Time\",\"Light\",\"Direction\",\"Hex\",\"Text\"\r");
        QVERIFY(lines.at(2).endsWith(
                R"(,"C0:FF:EE:00:00:A2","received","22 68 69 22 2c 20 79 6f 75",)"
                "\"\"\"hi\"\", you\"\r"));
    }

    void whatIsWrong()
    {
        m_lights.command(u"adapter"_s, { u"off"_s });
        click(u"Scan"_s);
        QVERIFY(waitFor([] { return find(u"Problem"_s)->isVisible(); }));
        QVERIFY(find(u"Problem"_s)->findChild<QLabel *>()->text().contains(u"switched off"_s));
        m_lights.command(u"adapter"_s, { u"on"_s });
        click(u"Scan again"_s);
        QVERIFY(waitFor([] { return !find(u"Problem"_s)->isVisible(); }));
        QTest::mouseClick(m_table->viewport(), Qt::LeftButton, {},
                          m_table->visualRect(cell(first, LightsModel::Name)).center());
        QTest::keyClick(m_window.get(), Qt::Key_K, Qt::ControlModifier);
        QVERIFY(shows(first, state, u"ready, kept"_s));
        m_lights.command(u"drop"_s, { first });
        QVERIFY(shows(first, state, u"reconnecting"_s) && shows(first, state, u"ready"_s));
        QCOMPARE(m_lights.command(u"connected"_s), QStringList { first });
    }

    void lightThatStays()
    {
        connectLights({ first });
        QSignalSpy finished(m_window.get(), &MainWindow::finished);
        kill(getppid(), SIGSTOP); // the virtual lights
        QTest::keyClick(m_window.get(), Qt::Key_Q, Qt::ControlModifier);
        const auto text = [] {
            const auto *box = qobject_cast<QMessageBox *>(QApplication::activeModalWidget());
            return box ? box->text() : QString();
        };
        waitFor([=] { return !text().isEmpty(); });
        kill(getppid(), SIGCONT);
        QVERIFY2(text().startsWith(first), qPrintable(text()));
        click(u"Close"_s);
        QCOMPARE(finished.value(0).value(0).toInt(), EXIT_FAILURE);
        m_window.reset();
        init();
    }

    void useVirtualLights()
    {
        const QString withoutLights = u"env -u CORVELKX_LIGHTS CORVELKX_CHILD=1 "
                                      "DBUS_SYSTEM_BUS_ADDRESS=unix:path=/nowhere "_s
                                      + QCoreApplication::applicationFilePath();
        for (const QString &options : { QString(), u" --plugin /nowhere"_s }) {
            QProcess program;
            program.startCommand(withoutLights + options);
            QVERIFY(waitFor([&] { return program.state() == QProcess::NotRunning; }));
            QCOMPARE(program.readAllStandardOutput(), "nine lights\n");
            QCOMPARE(program.exitCode(), EXIT_SUCCESS);
        }
    }
};

// Runs inside the child program: clicks "Use virtual lights", then, after the restart, checks that
// they are found.
void useProgram()
{
    const auto use = [] {
        auto *lights = find<QTableView>(u"Lights"_s);
        if (!areVirtualLightsHere()) {
            waitFor([] { return find(u"Use virtual lights"_s)->isVisible(); });
            return click(u"Use virtual lights"_s);
        }
        if (waitFor([=] { return lights->model()->rowCount() == 9; }))
            std::puts("nine lights");
        lights->window()->close();
    };
    if (qEnvironmentVariableIsSet("CORVELKX_CHILD"))
        QMetaObject::invokeMethod(qApp, use, Qt::QueuedConnection);
}
Q_COREAPP_STARTUP_FUNCTION(useProgram)

int main(int argc, char *argv[])
{
    qputenv("QT_QPA_PLATFORM", "offscreen");
    if (qEnvironmentVariableIsSet("CORVELKX_CHILD"))
        return runPanel(argc, argv);
    const QApplication app(argc, argv);
    TestPanel test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_panel.moc"
