#pragma once

#include <QPointer>
#include <QRect>
#include <QWidget>

class ViewController;

// A small window without a frame that opens under the tray icon and holds the main page.
// Its content is loaded the first time it is shown, which is what starts the gateway, the
// answer listeners and the serial port.
class Popover : public QWidget {
    Q_OBJECT
public:
    explicit Popover(QWidget *parent = nullptr);

    void setContentViewController(ViewController *controller);
    ViewController *contentViewController() const { return content; }

    bool isShown() const { return isVisible(); }
    // Opens below `anchor` (the icon's place on the screen), kept on the screen; above it
    // when the panel is at the bottom.
    void showRelativeTo(const QRect &anchor);
    void performClose();

    // Where a popover of `size` opens for an icon at `anchor` on a screen of `screen`.
    static QPoint placement(const QRect &anchor, const QSize &size, const QRect &screen);

private:
    QPointer<ViewController> content;
};
