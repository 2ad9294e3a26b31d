#pragma once

#include <QFile>
#include <QJsonObject>
#include <QObject>
#include <QString>

/*!
    The output of the console host: lines of text, or JSON objects for programs.

    Pass text from a light, such as its name, through printable(), so that it cannot control the
    terminal.
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
    /*! Prints \a text, unless the output is JSON. */
    void say(const QString &text);
    /*! Prints "program: sentence" to standard error; in JSON mode also an "error" event. */
    void complain(const QString &sentence);
    /*! Replaces the status line of a terminal with \a text; does nothing without a terminal. */
    void live(const QString &text);

    QString bold(const QString &text) const { return styled("1", text); }
    QString faint(const QString &text) const { return styled("2", text); }

signals:
    /*! Emitted before and after each line, so that a prompt can be hidden and shown again. */
    void aboutToPrint();
    void printed();
    /*! The reader of the output is gone. */
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
