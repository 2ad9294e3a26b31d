#pragma once

#include <QFile>
#include <QJsonObject>
#include <QObject>
#include <QString>

/*!
    What the console host prints: one line of text for people, or one JSON object for programs.

    Text from the air (a light's name) is made printable, so that it cannot move the cursor.
*/
class Output : public QObject
{
    Q_OBJECT

public:
    explicit Output(QObject *parent = nullptr);

    void setJson(bool json) { m_json = json; }
    bool isJson() const { return m_json; }
    bool isTerminal() const { return m_isTerminal; }

    /*! Prints \a text, or the object \a fields with the key "event" set to \a name. */
    void report(const QString &name, const QJsonObject &fields, const QString &text);
    /*! Prints \a text for people only. */
    void say(const QString &text);
    /*! Prints "program: sentence" to the standard error output, and an event for programs. */
    void complain(const QString &sentence);
    /*! Replaces the live line of a terminal with \a text; nothing elsewhere. */
    void live(const QString &text);

    QString bold(const QString &text) const { return styled("1", text); }
    QString faint(const QString &text) const { return styled("2", text); }

signals:
    /*! Something is about to be printed, or was: whoever shows a prompt makes room for it. */
    void aboutToPrint();
    void printed();
    /*! Nobody reads the output any more. */
    void closed();

private:
    void line(const QByteArray &text);
    QString styled(const char *code, const QString &text) const;

    QFile m_out;
    bool m_json = false;
    bool m_isTerminal;
    bool m_hasColour;
    bool m_hasLiveLine = false;
};
