#pragma once

#include "widgetoutlets.h"

#include <QWidget>
#include <memory>

class QComboBox;
class QFrame;
class QPushButton;
class SerialPortManager;
class USBViewController;

// The popover's USB section: a clickable "USB" title that makes the serial terminal the
// active one, the port, baud rate and terminal model popups, and the test print button.
// Loading the page opens the stored port, if one is stored and plugged in.
class UsbPage : public QWidget {
    Q_OBJECT
public:
    explicit UsbPage(QWidget *parent = nullptr);
    explicit UsbPage(SerialPortManager &manager, QWidget *parent = nullptr);
    ~UsbPage() override;

    USBViewController &controller() { return *viewController; }
    ClickableLabel *titleLabel() const { return title; }
    QComboBox *portPopupButton() const { return portBox; }
    QComboBox *baudPopupButton() const { return baudBox; }
    QComboBox *deviceTypePopupButton() const { return deviceTypeBox; }
    QPushButton *connectionTestButton() const { return testButton; }

protected:
    void showEvent(QShowEvent *event) override;

private:
    QFrame *frame;
    ClickableLabel *title;
    QComboBox *portBox;
    QComboBox *baudBox;
    QComboBox *deviceTypeBox;
    QPushButton *testButton;
    LabelTitleOutlet titleOutlet;
    ComboBoxOutlet portOutlet;
    ComboBoxOutlet baudOutlet;
    ComboBoxOutlet deviceTypeOutlet;
    ButtonOutlet testButtonOutlet;
    std::unique_ptr<USBViewController> viewController;
};
