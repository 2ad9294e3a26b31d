#pragma once

#include "ui_SendBar.h"

#include <QMap>
#include <QPointer>
#include <QTimer>

namespace CorvelKX {
class Light;
}

/*! Sends a payload to the selected lights that are ready, once or repeatedly. */
class SendBar : public QWidget
{
    Q_OBJECT

public:
    explicit SendBar(QWidget *parent = nullptr);
    ~SendBar() override;

    /*! The selected lights; called again when one of them changes its state. */
    void setLights(const QList<CorvelKX::Light *> &lights);

private:
    void update();
    void startOrStop();
    void sendOnce();
    void fillMenu();

    Ui::SendBar m_ui {};
    QMenu *m_menu;
    QMap<QString, QVariant> m_saved; //!< entries by name
    QList<QPointer<CorvelKX::Light>> m_lights;
    QList<QPointer<CorvelKX::Light>> m_targets; //!< the lights that a repeated payload goes to
    QByteArray m_payload;
    QTimer m_timer;
    int m_sentCount = 0;
};
