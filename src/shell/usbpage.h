#pragma once

#include "widgetoutlets.h"

#include <QWidget>

class QComboBox;
class QFrame;
class QPushButton;
class USBViewController;

// The popover's USB section: a clickable "USB" title that makes the serial terminal the
// active one, the port, baud rate and terminal model popups, and the test print button.
// The page shows the service's USB channel and stays attached to it while it lives;
// creating the page opens the stored port, if one is stored and plugged in.
class UsbPage : public QWidget {
    Q_OBJECT
public:
    explicit UsbPage(USBViewController &controller, QWidget *parent = nullptr);
    ~UsbPage() override;

    USBViewController &controller() { return viewController; }
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
    USBViewController &viewController;
};
