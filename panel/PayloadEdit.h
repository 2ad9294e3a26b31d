#pragma once

#include <QLineEdit>

/*!
    A line for a payload, in hexadecimal pairs or as text, as it is chosen and never guessed. What is
    no payload is marked while it is typed. The arrow keys go through what was sent before.
*/
class PayloadEdit : public QLineEdit
{
    Q_OBJECT

public:
    explicit PayloadEdit(QWidget *parent = nullptr);

    void setMode(bool isText);
    /*! The bytes; none where there is a problem(), which is a sentence. */
    QByteArray payload() const;
    QString problem() const;
    /*! What is typed, with its mode, as it is kept. */
    QString entry() const { return (m_isText ? u't' : u'h') + text(); }
    void setEntry(const QString &entry);

    /*! Puts what is typed at the end of the history. */
    void remember();
    QStringList history() const { return m_history; }
    void setHistory(const QStringList &history);

signals:
    void modeChanged(bool isText);

protected:
    void keyPressEvent(QKeyEvent *event) override;

private:
    void check();
    void showEntry(qsizetype position);

    bool m_isText = false;
    QAction *m_mark;
    QStringList m_history; //!< the oldest entry comes first
    qsizetype m_position = 0;
    QString m_draft; //!< what was typed before the history was entered
};
