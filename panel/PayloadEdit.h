#pragma once

#include <QLineEdit>

/*!
    A line edit for a payload, in hexadecimal pairs or as text. The user chooses which; it is never
    guessed. A payload that is not valid is marked while it is typed. The arrow keys go through the
    history.
*/
class PayloadEdit : public QLineEdit
{
    Q_OBJECT

public:
    explicit PayloadEdit(QWidget *parent = nullptr);

    void setMode(bool isText);
    /*! The bytes; empty if there is a problem(), which is a sentence for people. */
    QByteArray payload() const;
    QString problem() const;
    /*! The text and its mode in one string, for the history and the settings. */
    QString entry() const { return (m_isText ? u't' : u'h') + text(); }
    void setEntry(const QString &entry);

    /*! Appends the entry to the history. */
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
    QString m_draft; //!< the entry that was being typed when the history was opened
};
