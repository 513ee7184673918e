#pragma once

#include <QWidget>
#include <functional>

// Makes the shell's resources (the tray pictures, the storyboard) available.
void ensureShellResources();

class GatewayPage;
class Service;
class TcpPage;
class UsbPage;
class QPushButton;

// The popover's main page: the gateway page, the TCP page and the USB page, one under the
// other, with the close and exit buttons. Its scene and the pages it embeds come from the
// "Main" storyboard resource. The pages show the service's gateway and channels: the
// service owns them, the pages only draw them and pass the owner's choices on.
class ViewController : public QWidget {
    Q_OBJECT
public:
    static inline const QString exitQuestion = QStringLiteral("테라노카운터 서비스 종료");
    static inline const QString exitText =
        QStringLiteral("테라노카운터 백그라운드 서비스를 종료 하시겠습니다.");
    static inline const QString exitButton = QStringLiteral("종 료");
    static inline const QString cancelButton = QStringLiteral("취 소");
    static inline const QString defaultStoryboard = QStringLiteral(":/Main.storyboard");

    // The "ViewController" scene of the storyboard; a storyboard without it stops the
    // service, as the page could not be shown at all.
    static ViewController *freshController(Service &service, const QString &storyboard = defaultStoryboard);

    // Creates the embedded pages once; creating them is what starts their servers.
    void loadViewIfNeeded();
    bool isViewLoaded() const { return loaded; }
    void viewDidLoad() {}
    void viewDidAppear();

    void closeClicked();
    void exitClicked();
    // Asks `question` with `text` under a warning sign; true when the first button ("종 료")
    // was chosen. Tests answer in its place.
    std::function<bool(const QString &question, const QString &text)> dialogOKCancel = askWithAlert;
    static bool askWithAlert(const QString &question, const QString &text);

    GatewayPage *gatewayPage() const { return gateway; }
    TcpPage *tcpPage() const { return tcp; }
    UsbPage *usbPage() const { return usb; }
    QPushButton *closeButton() const { return close; }
    QPushButton *exitButtonWidget() const { return exit; }
    QStringList embeddedPages() const { return embeds; }

signals:
    // The close button: whoever shows the pages (the popover, or the window without a
    // tray) hides them.
    void closeRequested();

private:
    ViewController(Service &service, QStringList embeds);
    // The gateway hands terminal requests to the two channels and takes their answers.
    void connectPages();

    Service &service;
    QStringList embeds;
    bool loaded = false;
    GatewayPage *gateway = nullptr;
    TcpPage *tcp = nullptr;
    UsbPage *usb = nullptr;
    QPushButton *close = nullptr;
    QPushButton *exit = nullptr;
};
