#include "usbpage.h"

#include "terminal_serial/usbviewcontroller.h"

#include <QComboBox>
#include <QFormLayout>
#include <QFrame>
#include <QPushButton>
#include <QShowEvent>
#include <QVBoxLayout>

UsbPage::UsbPage(USBViewController &controller, QWidget *parent)
    : QWidget(parent), frame(new QFrame(this)), title(new ClickableLabel(QStringLiteral("USB"), this)),
      portBox(new QComboBox(frame)), baudBox(new QComboBox(frame)), deviceTypeBox(new QComboBox(frame)),
      testButton(new QPushButton(QStringLiteral("연결 테스트"), frame)), titleOutlet(title),
      portOutlet(portBox), baudOutlet(baudBox), deviceTypeOutlet(deviceTypeBox), testButtonOutlet(testButton),
      viewController(controller) {
    title->setAlignment(Qt::AlignCenter);
    title->setMargin(4);
    frame->setFrameShape(QFrame::StyledPanel);
    // The model popup's items are the controller's models in its order: the stored
    // model is selected by its position.
    deviceTypeBox->addItems(viewController.availableDeviceType);

    auto *form = new QFormLayout(frame);
    form->addRow(QStringLiteral("포트"), portBox);
    form->addRow(QStringLiteral("속도"), baudBox);
    form->addRow(QStringLiteral("단말기"), deviceTypeBox);
    form->addRow(testButton);
    auto *layout = new QVBoxLayout(this);
    layout->addWidget(title);
    layout->addWidget(frame);

    USBViewController &c = viewController;
    c.portPopupButton = &portOutlet;
    c.baudPopupButton = &baudOutlet;
    c.titleLabel = &titleOutlet;
    c.container = frame;
    c.connectionTestButton = &testButtonOutlet;
    c.deviceTypePopupButton = &deviceTypeOutlet;

    // Until USB is chosen the section looks and acts like the inactive interface.
    showTitleDeselected(&titleOutlet);
    for (ControlOutlet *control : std::initializer_list<ControlOutlet *>{
             &portOutlet, &baudOutlet, &testButtonOutlet, &deviceTypeOutlet})
        control->setEnabled(false);

    connect(title, &ClickableLabel::clicked, &c, &USBViewController::titleLabelClickedWithSender);
    connect(portBox, &QComboBox::activated, &c, &USBViewController::portChanged);
    connect(baudBox, &QComboBox::activated, &c, &USBViewController::baudrateChanged);
    connect(deviceTypeBox, &QComboBox::activated, &c, &USBViewController::deviceTypeChanged);
    connect(testButton, &QPushButton::clicked, &c, &USBViewController::connectionTestClicked);

    c.viewDidLoad();
}

UsbPage::~UsbPage() {
    // The channel goes on without the page: nothing may write to its widgets any more.
    USBViewController &c = viewController;
    c.portPopupButton = nullptr;
    c.baudPopupButton = nullptr;
    c.titleLabel = nullptr;
    c.container = nullptr;
    c.connectionTestButton = nullptr;
    c.deviceTypePopupButton = nullptr;
}

void UsbPage::showEvent(QShowEvent *event) {
    QWidget::showEvent(event);
    if (!event->spontaneous())
        viewController.viewDidAppear();
}
