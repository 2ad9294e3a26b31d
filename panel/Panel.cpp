#include "Panel.h"

#include "ExitStatus.h"
#include "MainWindow.h"
#include "Platform.h"
#include "Text.h"
#include "VirtualLights.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QFile>
#include <QIcon>
#include <QRegularExpression>
#include <QSettings>
#include <QTextStream>

#include <algorithm>
#include <cstdlib>
#include <memory>

using Error = CorvelKX::Host::Error;
using Qt::StringLiterals::operator""_s;

namespace {

int complain(const QString &sentence, int status)
{
    QTextStream(stderr) << QCoreApplication::applicationName() << ": " << sentence << Qt::endl;
    return status;
}

void addOptions(QCommandLineParser &parser)
{
    parser.setApplicationDescription(
            u"A window that finds, connects and talks with CorvelKX lights through the plugin."_s);
    parser.addOption({ { u"h"_s, u"help"_s }, u"Show this help."_s });
    parser.addVersionOption();
    parser.addOptions({
            { u"simulate"_s, u"Use virtual lights instead of an adapter."_s },
            { u"lights"_s, u"Use the virtual lights of the JSON file <file>; implies --simulate."_s,
              u"file"_s },
            { u"plugin"_s, u"Load the plugin from <file>."_s, u"file"_s },
            { u"log"_s, u"Show the debug log, also on the standard error output."_s },
            { u"reset"_s, u"Forget the settings, with the history and the saved payloads."_s },
    });
}

} // namespace

int runPanel(int argc, char *argv[])
{
    // All words of the command line; QApplication removes the options of Qt.
    QStringList words;
    std::transform(argv + 1, argv + argc, std::back_inserter(words),
                   [](const char *word) { return QFile::decodeName(word); });
    QCoreApplication::setOrganizationName(u"CorvelKX"_s);
    QCoreApplication::setApplicationName(u"corvelkx-panel"_s);
    QCoreApplication::setApplicationVersion(QStringLiteral(PROJECT_VERSION));
    showLog(false);
    const QRegularExpression help(u"^(-h|-v|--help|--version)$"_s);
    const bool needsDisplay = words.filter(help).isEmpty();
    const std::unique_ptr<QCoreApplication> app(needsDisplay ? new QApplication(argc, argv)
                                                             : new QCoreApplication(argc, argv));

    QCommandLineParser parser;
    addOptions(parser);
    if (!parser.parse(QCoreApplication::arguments()))
        return complain(parser.errorText(), usageError);
    if (parser.isSet(u"version"_s))
        parser.showVersion();
    if (parser.isSet(u"help"_s))
        parser.showHelp();
    if (!parser.positionalArguments().isEmpty())
        return complain(u"\"%1\" is no option; try --help."_s.arg(
                                printable(parser.positionalArguments().constFirst())),
                        usageError);
    const QString lights = parser.value(u"lights"_s);
    if ((parser.isSet(u"simulate"_s) || !lights.isEmpty()) && !areVirtualLightsHere())
        return complain(enterVirtualLights(lights, words), EXIT_FAILURE);
    if (parser.isSet(u"reset"_s))
        QSettings().clear();

    QGuiApplication::setDesktopFileName(u"org.example.CorvelKXPanel"_s);
    QGuiApplication::setWindowIcon(QIcon::fromTheme(u"org.example.CorvelKXPanel"_s));
    QGuiApplication::setQuitOnLastWindowClosed(false);
    bool goesVirtual = false;
    bool isStuck = false;
    int status = EXIT_SUCCESS;
    Interrupt interrupt;
    {
        MainWindow window(parser.value(u"plugin"_s));
        QObject::connect(&interrupt, &Interrupt::interrupted, &window, &QWidget::close);
        QObject::connect(&window, &MainWindow::finished, app.get(), &QCoreApplication::exit);
        if (parser.isSet(u"log"_s))
            window.showDebugLog();
        window.show();
        status = QCoreApplication::exec();
        goesVirtual = window.wantsVirtualLights();
        isStuck = status != EXIT_SUCCESS || window.host()->error() == Error::NotResponding;
        if (goesVirtual && window.host()->error() == Error::PluginError)
            words += { u"--plugin"_s, QString() };
    }
    if (goesVirtual)
        return complain(enterVirtualLights(lights, words), EXIT_FAILURE);
    if (interrupt.signalNumber())
        status = signalBase + interrupt.signalNumber();
    // The plugin would wait ten more seconds for the Bluetooth service.
    if (isStuck)
        std::_Exit(status);
    return status;
}
