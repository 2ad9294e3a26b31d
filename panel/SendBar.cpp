#include "SendBar.h"

#include "CorvelKXLight.h"

#include <QInputDialog>
#include <QMenu>
#include <QSettings>

#include <algorithm>
#include <utility>

using CorvelKX::Light;
using Qt::StringLiterals::operator""_s;

SendBar::SendBar(QWidget *parent) : QWidget(parent), m_menu(new QMenu(this))
{
    m_ui.setupUi(this);
    m_ui.saved->setMenu(m_menu);
    m_timer.setTimerType(Qt::PreciseTimer);
    const QSettings settings;
    m_saved = settings.value(u"saved"_s).toMap();
    m_ui.payload->setHistory(settings.value(u"history"_s).toStringList());
    m_ui.interval->setValue(settings.value(u"interval"_s, m_ui.interval->value()).toInt());
    m_ui.count->setValue(settings.value(u"count"_s).toInt());
    connect(m_ui.mode, &QComboBox::currentIndexChanged, m_ui.payload, &PayloadEdit::setMode);
    connect(m_ui.payload, &PayloadEdit::modeChanged, this, [this](bool isText) {
        m_ui.mode->setCurrentIndex(int(isText));
        update();
    });
    m_ui.mode->setCurrentIndex(settings.value(u"mode"_s).toInt());
    connect(m_ui.payload, &QLineEdit::textChanged, this, &SendBar::update);
    connect(m_ui.payload, &QLineEdit::returnPressed, m_ui.send, &QPushButton::click);
    connect(m_ui.repeat, &QCheckBox::toggled, this, &SendBar::update);
    connect(m_ui.send, &QPushButton::clicked, this, &SendBar::startOrStop);
    connect(m_menu, &QMenu::aboutToShow, this, &SendBar::fillMenu);
    connect(&m_timer, &QTimer::timeout, this, &SendBar::sendOnce);
}

SendBar::~SendBar()
{
    QSettings settings;
    settings.setValue(u"saved"_s, m_saved);
    settings.setValue(u"history"_s, m_ui.payload->history());
    settings.setValue(u"mode"_s, m_ui.mode->currentIndex());
    settings.setValue(u"interval"_s, m_ui.interval->value());
    settings.setValue(u"count"_s, m_ui.count->value());
}

void SendBar::setLights(const QList<Light *> &lights)
{
    m_lights = { lights.cbegin(), lights.cend() };
    update();
}

// Shows why nothing can be sent, or to how many lights it would be sent.
void SendBar::update()
{
    const bool isSending = m_timer.isActive();
    const auto ready = std::count_if(m_lights.cbegin(), m_lights.cend(),
                                     [](const Light *light) { return light && light->isReady(); });
    QString hint = m_ui.payload->problem();
    if (isSending)
        hint = tr("Sent %1 times.").arg(m_sentCount);
    else if (hint.isEmpty() && ready == 0)
        hint = m_lights.isEmpty() ? tr("Select lights to send to.")
                                  : tr("None of the selected lights is ready.");
    else if (hint.isEmpty())
        hint = tr("Goes to the selected lights that are ready: %1.").arg(ready);
    m_ui.hint->setText(hint);
    m_ui.send->setText(isSending ? tr("S&top sending") : tr("Se&nd"));
    m_ui.send->setEnabled(isSending || (!m_ui.payload->payload().isEmpty() && ready > 0));
    m_ui.interval->setEnabled(m_ui.repeat->isChecked() && !isSending);
    m_ui.count->setEnabled(m_ui.interval->isEnabled());
}

void SendBar::startOrStop()
{
    if (m_timer.isActive()) {
        m_timer.stop();
        return update();
    }
    m_ui.payload->remember();
    m_payload = m_ui.payload->payload();
    m_targets = m_lights;
    m_sentCount = 0;
    if (m_ui.repeat->isChecked())
        m_timer.start(m_ui.interval->value());
    sendOnce();
}

// Skips lights that are lost, until they are ready again.
void SendBar::sendOnce()
{
    bool isSent = false;
    for (Light *light : std::as_const(m_targets))
        isSent = (light && light->send(m_payload)) || isSent;
    if (isSent && ++m_sentCount == m_ui.count->value())
        m_timer.stop();
    update();
}

void SendBar::fillMenu()
{
    m_menu->clear();
    QAction *save = m_menu->addAction(tr("&Save this payload..."), this, [this] {
        const QString name = QInputDialog::getText(this, tr("Save this payload"), tr("Name:"));
        if (!name.simplified().isEmpty())
            m_saved.insert(name.simplified(), m_ui.payload->entry());
    });
    save->setEnabled(!m_ui.payload->payload().isEmpty());
    QMenu *remove = m_menu->addMenu(tr("&Remove"));
    m_menu->addSeparator();
    const QStringList names = m_saved.keys();
    for (const QString &name : names) {
        m_menu->addAction(name, this, [this, entry = m_saved.value(name).toString()] {
            m_ui.payload->setEntry(entry);
        });
        remove->addAction(name, this, [this, name] { m_saved.remove(name); });
    }
}
