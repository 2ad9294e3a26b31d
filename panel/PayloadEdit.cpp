#include "PayloadEdit.h"

#include "Text.h"

#include <QAction>
#include <QKeyEvent>
#include <QStyle>

using Qt::StringLiterals::operator""_s;

PayloadEdit::PayloadEdit(QWidget *parent)
    : QLineEdit(parent),
      m_mark(addAction(style()->standardIcon(QStyle::SP_MessageBoxWarning), TrailingPosition))
{
    m_mark->setText(tr("Not a payload")); // for screen readers
    connect(this, &QLineEdit::textChanged, this, &PayloadEdit::check);
    check();
}

void PayloadEdit::setMode(bool isText)
{
    m_isText = isText;
    check();
    emit modeChanged(isText);
}

QByteArray PayloadEdit::payload() const
{
    if (!problem().isEmpty())
        return {};
    return m_isText ? text().toUtf8() : QByteArray::fromHex(text().toLatin1());
}

QString PayloadEdit::problem() const
{
    const QStringList groups = text().simplified().split(u' ', Qt::SkipEmptyParts);
    for (const QString &group : groups) {
        if (!m_isText && !bytesFromHex(group))
            return notHex(group);
    }
    return {};
}

void PayloadEdit::check()
{
    const QString wrong = problem();
    setPlaceholderText(m_isText ? tr("Text, sent in UTF-8") : tr("For example 01 02 FF"));
    m_mark->setVisible(!wrong.isEmpty());
    m_mark->setToolTip(wrong);
    setAccessibleDescription(wrong);
}

void PayloadEdit::setEntry(const QString &entry)
{
    setMode(entry.startsWith(u't'));
    setText(entry.mid(1));
}

void PayloadEdit::remember()
{
    m_history.removeAll(entry());
    m_history.append(entry());
    setHistory(m_history.mid(std::max<qsizetype>(m_history.size() - 100, 0)));
}

void PayloadEdit::setHistory(const QStringList &history)
{
    m_history = history;
    m_position = history.size();
}

void PayloadEdit::showEntry(qsizetype position)
{
    if (position < 0 || position > m_history.size())
        return;
    if (m_position == m_history.size())
        m_draft = entry();
    m_position = position;
    setEntry(position == m_history.size() ? m_draft : m_history.at(position));
}

void PayloadEdit::keyPressEvent(QKeyEvent *event)
{
    if (event->key() == Qt::Key_Up)
        showEntry(m_position - 1);
    else if (event->key() == Qt::Key_Down)
        showEntry(m_position + 1);
    else
        QLineEdit::keyPressEvent(event);
}
