#include "MainWindow.h"
#include "Panel.h"
#include "TestSupport.h"
#include "VirtualLights.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QApplication>
#include <QClipboard>
#include <QMessageBox>
#include <QProcess>
#include <QSettings>
#include <QSignalSpy>
#include <QTableView>
#include <QTemporaryDir>
#include <QTest>

#include <algorithm>
#include <memory>

using Qt::StringLiterals::operator""_s;

namespace {

const QString first = u"C0:FF:EE:00:00:01"_s;
const QString second = u"C0:FF:EE:00:00:A2"_s;

// The control that a screen reader calls \a name.
template<typename Control>
Control *find(const QString &name, QWidget *parent)
{
    const auto all = parent->findChildren<Control *>();
    const auto found = std::find_if(all.cbegin(), all.cend(), [&name](Control *control) {
        return control->accessibleName() == name
               || QAccessible::queryAccessibleInterface(control)->text(QAccessible::Name) == name;
    });
    if (found == all.cend())
        qFatal("There is no \"%s\".", qPrintable(name));
    return *found;
}

QModelIndex cell(const QTableView *table, const QString &address, const QString &title)
{
    const QAbstractItemModel *model = table->model();
    int column = 0;
    while (model->headerData(column, Qt::Horizontal).toString() != title)
        ++column;
    const auto rows = model->match(model->index(0, 0), LightsModel::FilterRole, address, 1,
                                   Qt::MatchContains);
    return rows.isEmpty() ? QModelIndex() : rows.first().siblingAtColumn(column);
}

} // namespace

// What the window promises to who uses it, by mouse and keyboard.
class TestPanel : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void fromScanToForget();
    void payloads();
    void log();
    void adapterOff();
    void keptConnected();
    void useVirtualLights_data();
    void useVirtualLights();
    void slowToDisconnect();

private:
    template<typename Control>
    Control *find(const QString &name)
    {
        return ::find<Control>(name, m_window.get());
    }
    void click(const QString &button);
    void type(const QString &edit, const QString &text);
    void select(const QString &address, Qt::KeyboardModifiers modifiers = {});
    QString shown(const QString &address, const QString &title);
    bool becomes(const QString &address, const QString &state);
    void connectLight(const QString &address);
    QStringList csv(const QString &fileName);

    QTemporaryDir m_directory;
    Lights m_lights;
    std::unique_ptr<MainWindow> m_window;
    QTableView *m_table = nullptr;
};

void TestPanel::init()
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, m_directory.path());
    m_window = std::make_unique<MainWindow>(QString());
    m_table = find<QTableView>(u"Lights"_s);
    m_window->show();
    QVERIFY(QTest::qWaitForWindowActive(m_window.get()));
    QVERIFY(waitFor([this] { return m_table->model()->rowCount() == 9; }));
}

void TestPanel::cleanup()
{
    QSignalSpy finished(m_window.get(), &MainWindow::finished);
    QApplication::setActiveWindow(m_window.get()); // the last dialog's end does not, here
    QTest::keyClick(m_window.get(), Qt::Key_Q, Qt::ControlModifier);
    QVERIFY(waitFor([&] { return finished.size() == 1; }));
    QCOMPARE(finished.at(0).at(0).toInt(), EXIT_SUCCESS);
    QVERIFY(m_lights.order(u"connected"_s).isEmpty());
    m_window.reset();
    m_lights.restore();
}

void TestPanel::click(const QString &button)
{
    auto *found = find<QAbstractButton>(button);
    QVERIFY2(found->isEnabled() && found->isVisible(), qPrintable(button));
    QTest::mouseClick(found, Qt::LeftButton);
}

void TestPanel::type(const QString &edit, const QString &text)
{
    auto *found = find<QWidget>(edit);
    QTest::keyClick(found, Qt::Key_A, Qt::ControlModifier);
    QTest::keyClicks(found, text);
}

void TestPanel::select(const QString &address, Qt::KeyboardModifiers modifiers)
{
    QTest::mouseClick(m_table->viewport(), Qt::LeftButton, modifiers,
                      m_table->visualRect(cell(m_table, address, u"Name"_s)).center());
}

QString TestPanel::shown(const QString &address, const QString &title)
{
    return QAccessible::queryAccessibleInterface(m_table)
            ->tableInterface()
            ->cellAt(cell(m_table, address, title).row(), cell(m_table, address, title).column())
            ->text(QAccessible::Name);
}

bool TestPanel::becomes(const QString &address, const QString &state)
{
    return waitFor([&] { return shown(address, u"State"_s).startsWith(state); });
}

void TestPanel::connectLight(const QString &address)
{
    select(address);
    click(u"Connect"_s);
    QVERIFY(becomes(address, u"ready"_s));
}

void TestPanel::fromScanToForget()
{
    click(u"Stop"_s);
    QVERIFY(!find<QAbstractButton>(u"Stop"_s)->isEnabled());
    QTest::keyClick(m_window.get(), Qt::Key_F5); // which announces all of them again
    QVERIFY(waitFor([this] { return shown(first, u"Announced"_s).toInt() > 1; }));
    QCOMPARE(m_table->model()->rowCount(), 9);

    QTest::keyClick(m_window.get(), Qt::Key_F, Qt::ControlModifier);
    QTest::keyClicks(QApplication::focusWidget(), u"162"_s);
    QCOMPARE(m_table->model()->rowCount(), 1);
    type(u"Filter lights"_s, u"00:01"_s);
    QCOMPARE(m_table->model()->rowCount(), 1);
    QTest::keyClick(find<QWidget>(u"Filter lights"_s), Qt::Key_Backspace, Qt::ControlModifier);
    QCOMPARE(m_table->model()->rowCount(), 9);

    select(first);
    select(second, Qt::ControlModifier);
    click(u"Connect"_s);
    QVERIFY(!m_window->host()->isScanning());
    QVERIFY(becomes(first, u"ready"_s) && becomes(second, u"ready"_s));
    QTest::keyClicks(find<QWidget>(u"Payload"_s), u"0102 ff"_s);
    QTest::keyClick(find<QWidget>(u"Payload"_s), Qt::Key_Return);
    QVERIFY(waitFor([this] {
        return shown(first, u"Received"_s) + shown(second, u"Received"_s) == u"11"_s;
    }));
    QCOMPARE(m_lights.payloads(second).last(), u"request 0102ff"_s);
    click(u"Disconnect"_s);
    QVERIFY(becomes(first, u"seen"_s) && becomes(second, u"seen"_s));
    select(first);
    select(second, Qt::ControlModifier);
    QTest::keyClick(m_table, Qt::Key_Delete);
    QVERIFY(waitFor([this] { return m_table->model()->rowCount() == 7; }));
}

void TestPanel::payloads()
{
    connectLight(first);
    auto *send = find<QAbstractButton>(u"Send"_s);
    auto *payload = find<QLineEdit>(u"Payload"_s);
    type(u"Payload"_s, u"01 2"_s);
    QVERIFY(!send->isEnabled());
    QVERIFY(QAccessible::queryAccessibleInterface(payload)
                    ->text(QAccessible::Description)
                    .contains(u"\"2\""_s));
    QTest::keyClick(payload, Qt::Key_Return);
    QVERIFY(m_lights.payloads(first).isEmpty());
    QTest::keyClicks(payload, u"0"_s);
    QTest::keyClick(payload, Qt::Key_Return);
    QTest::keyClick(find<QComboBox>(u"Payload mode"_s), Qt::Key_Down);
    type(u"Payload"_s, u"20"_s); // hexadecimal, too, but that is not what is chosen
    click(u"Send"_s);
    QVERIFY(waitFor([this] { return m_lights.payloads(first).size() == 2; }));
    QCOMPARE(m_lights.payloads(first), QStringList({ u"command 0120"_s, u"command 3230"_s }));

    type(u"Payload"_s, u"draft"_s);
    QTest::keyClick(payload, Qt::Key_Up);
    QTest::keyClick(payload, Qt::Key_Up);
    QCOMPARE(payload->text(), u"01 20"_s);
    QCOMPARE(find<QComboBox>(u"Payload mode"_s)->currentText(), u"Hex"_s);
    for (int times = 0; times < 3; ++times)
        QTest::keyClick(payload, Qt::Key_Down);
    QCOMPARE(payload->text(), u"draft"_s);

    click(u"Repeat every"_s);
    type(u"Repeat interval"_s, u"10"_s);
    type(u"Repeat count"_s, u"5"_s);
    click(u"Send"_s);
    QVERIFY(waitFor([=] { return send->text().remove(u'&') == u"Send"_s; }));
    QVERIFY(waitFor([this] { return shown(first, u"Received"_s) == u"7"_s; }));
    QCOMPARE(m_lights.payloads(first).count(u"command 6472616674"_s), 5);

    cleanup();
    init(); // what was sent, and how, is remembered
    QCOMPARE(find<QComboBox>(u"Payload mode"_s)->currentText(), u"Text"_s);
    QTest::keyClick(find<QLineEdit>(u"Payload"_s), Qt::Key_Up);
    QCOMPARE(find<QLineEdit>(u"Payload"_s)->text(), u"draft"_s);
}

QStringList TestPanel::csv(const QString &fileName)
{
    // The dialog runs an event loop of its own.
    QMetaObject::invokeMethod(
            this,
            [&fileName] {
                QWidget *dialog = QApplication::activeModalWidget();
                auto *edit = dialog->findChild<QLineEdit *>(u"fileNameEdit"_s);
                edit->setText(fileName); // typing would open a list of files over it
                QTest::mouseClick(::find<QAbstractButton>(u"Save"_s, dialog), Qt::LeftButton);
            },
            Qt::QueuedConnection);
    QTest::keyClick(m_window.get(), Qt::Key_E, Qt::ControlModifier);
    QFile file(fileName);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()).split(u"\r\n"_s)
                                          : QStringList();
}

void TestPanel::log()
{
    connectLight(first);
    connectLight(second);
    const auto *table = find<QTableView>(u"Log"_s);
    QTest::keyClicks(find<QComboBox>(u"Payload mode"_s), u"Text"_s);
    type(u"Payload"_s, u"\"hi\", you"_s);
    click(u"Send"_s);
    QVERIFY(waitFor([this] { return shown(second, u"Received"_s) == u"1"_s; }));
    type(u"Filter log"_s, u"2268692"_s); // as hexadecimal digits
    QVERIFY(waitFor([=] { return table->model()->rowCount() == 2; }));
    click(u"Pause"_s);
    click(u"Send"_s);
    QVERIFY(waitFor([this] { return shown(second, u"Received"_s) == u"2"_s; }));
    QCOMPARE(table->model()->rowCount(), 2);
    click(u"Pause"_s);
    QCOMPARE(table->model()->rowCount(), 4);

    const QStringList lines = csv(m_directory.filePath(u"log.csv"_s));
    QCOMPARE(lines.size(), 6); // the header before, nothing behind
    QCOMPARE(lines.first(), uR"("Time","Light","Direction","Hex","Text")"_s);
    QVERIFY(lines.at(2).endsWith(
            uR"(,"C0:FF:EE:00:00:A2","received","22 68 69 22 2c 20 79 6f 75","""hi"", you")"_s));
    click(u"Copy"_s);
    QCOMPARE(QApplication::clipboard()->text().count(u'\n'), 4);

    QTest::keyClicks(find<QComboBox>(u"Log of"_s), first);
    QCOMPARE(table->model()->rowCount(), 0);
    type(u"Filter log"_s, u"ready"_s);
    QCOMPARE(table->model()->rowCount(), 1);
    click(u"Clear"_s);
    QTest::keyClick(find<QWidget>(u"Filter log"_s), Qt::Key_Backspace, Qt::ControlModifier);
    QCOMPARE(table->model()->rowCount(), 0);
    QTest::keyClick(find<QComboBox>(u"Log of"_s), Qt::Key_Home);
    click(u"Debug log"_s);
    click(u"Send"_s);
    type(u"Filter log"_s, u"debug"_s);
    QVERIFY(waitFor([=] { return table->model()->rowCount() > 0; }));
    click(u"Debug log"_s);
}

void TestPanel::adapterOff()
{
    m_lights.order(u"adapter"_s, { u"off"_s });
    click(u"Scan"_s);
    auto *problem = find<QFrame>(u"Problem"_s);
    QVERIFY(waitFor([=] { return problem->isVisible(); }));
    QVERIFY(problem->findChild<QLabel *>()->text().contains(u"switched off"_s));
    m_lights.order(u"adapter"_s, { u"on"_s });
    click(u"Scan again"_s);
    QVERIFY(waitFor([=] { return !problem->isVisible(); }));
}

void TestPanel::keptConnected()
{
    select(first);
    QTest::keyClick(m_window.get(), Qt::Key_K, Qt::ControlModifier);
    QVERIFY(becomes(first, u"ready, kept"_s));
    m_lights.order(u"drop"_s, { first });
    QVERIFY(becomes(first, u"reconnecting"_s));
    QVERIFY(becomes(first, u"ready"_s));
    QCOMPARE(m_lights.order(u"connected"_s), QStringList { first });
}

void TestPanel::useVirtualLights_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("no adapter") << QStringList();
    QTest::newRow("no plugin") << QStringList({ u"--plugin"_s, u"/nowhere"_s });
}

void TestPanel::useVirtualLights()
{
    QFETCH(QStringList, arguments);
    QProcess program;
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.remove(u"CORVELKX_LIGHTS"_s);
    environment.insert(u"DBUS_SYSTEM_BUS_ADDRESS"_s, u"unix:path=/nowhere"_s);
    environment.insert(u"CORVELKX_CHILD"_s, m_directory.path());
    program.setProcessEnvironment(environment);
    program.start(QCoreApplication::applicationFilePath(), arguments);
    QVERIFY(waitFor([&] { return program.state() == QProcess::NotRunning; }));
    QCOMPARE(program.readAllStandardOutput(), "nine lights\n");
    QCOMPARE(program.exitCode(), EXIT_SUCCESS);
}

void TestPanel::slowToDisconnect()
{
    connectLight(first);
    m_lights.set(first, u"disconnectDelay"_s, u"2500"_s);
    QSignalSpy finished(m_window.get(), &MainWindow::finished);
    m_window->close();
    QMessageBox *box = nullptr;
    QVERIFY(waitFor([&] { return (box = m_window->findChild<QMessageBox *>()) != nullptr; }));
    QVERIFY(m_window->isVisible());
    QVERIFY(box->text().contains(first));
    QTest::keyClick(box, Qt::Key_Escape);
    QCOMPARE(finished.at(0).at(0).toInt(), EXIT_FAILURE);
    QVERIFY(m_lights.waitUntilFree());
    init();
}

// What somebody does with the program itself, which has found no lights of its own.
void useProgram()
{
    if (!qEnvironmentVariableIsSet("CORVELKX_CHILD"))
        return;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope,
                       qEnvironmentVariable("CORVELKX_CHILD"));
    const auto use = [] {
        const auto all = QApplication::topLevelWidgets();
        QWidget *window = *std::find_if(all.cbegin(), all.cend(), [](const QWidget *widget) {
            return qobject_cast<const MainWindow *>(widget);
        });
        if (!areVirtualLightsHere()) {
            auto *button = find<QAbstractButton>(u"Use virtual lights"_s, window);
            waitFor([=] { return button->isVisible(); });
            return QTest::mouseClick(button, Qt::LeftButton);
        }
        const auto *table = find<QTableView>(u"Lights"_s, window);
        if (waitFor([=] { return table->model()->rowCount() == 9; }))
            std::puts("nine lights");
        window->close();
    };
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
