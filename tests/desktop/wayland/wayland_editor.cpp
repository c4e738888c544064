// SPDX-License-Identifier: GPL-3.0-or-later
// A Wayland window standing in for an editor with a selection: it takes the keyboard focus like any
// new window, and Ctrl+C copies its selected text (the first argument) to the clipboard, as editors do.
// A second argument "maximized" opens it maximised.
#include <QClipboard>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QPainter>
#include <QRasterWindow>

#include <cstdio>

namespace {

class Editor final : public QRasterWindow
{
public:
    explicit Editor(QString selection)
        : m_selection(std::move(selection))
    {
        setTitle(QStringLiteral("Editor"));
        resize(480, 120);
    }

protected:
    void paintEvent(QPaintEvent *) override
    {
        QPainter painter(this);
        const QRect area(QPoint(), size());
        painter.fillRect(area, Qt::white);
        painter.drawText(area, Qt::AlignCenter, m_selection);
    }
    void focusInEvent(QFocusEvent *) override { announce("focused"); }
    void keyPressEvent(QKeyEvent *event) override
    {
        if (event->key() == Qt::Key_C && event->modifiers() == Qt::ControlModifier) {
            QGuiApplication::clipboard()->setText(m_selection);
            announce("copied");
        } else {
            announce(qPrintable(QStringLiteral("key %1").arg(event->key())));
        }
    }

private:
    static void announce(const char *what) { std::puts(what); }

    QString m_selection;
};

} // namespace

int main(int argc, char **argv)
{
    QGuiApplication app(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0); // each line reaches the test as it is written
    Editor editor(app.arguments().value(1));
    if (app.arguments().value(2) == u"maximized")
        editor.showMaximized();
    else
        editor.show();
    return app.exec();
}
