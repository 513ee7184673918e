#pragma once

#include "common/outlets.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QPointer>

// The widgets behind the controllers' outlets. Programmatic changes made through these
// never fire the page's actions: like the original pages' popups, only the user's own
// choices do (the pages connect to QComboBox::activated, which a program never emits).

// A label that reports a single primary-button click, for the channel titles.
class ClickableLabel : public QLabel {
    Q_OBJECT
public:
    using QLabel::QLabel;

signals:
    void clicked();

protected:
    void mousePressEvent(QMouseEvent *event) override;
};

class LabelTitleOutlet : public TitleOutlet {
public:
    explicit LabelTitleOutlet(QLabel *label) : label(label) {}
    void setBackgroundColor(const Rgba &color) override;
    void setTextColor(const Rgba &color) override;

private:
    QPointer<QLabel> label;
};

class LineEditOutlet : public TextFieldOutlet {
public:
    explicit LineEditOutlet(QLineEdit *field) : field(field) {}
    QString stringValue() const override;
    void setStringValue(const QString &text) override;
    void setEditable(bool editable) override;
    void setEnabled(bool enabled) override;

private:
    QPointer<QLineEdit> field;
};

class ComboBoxOutlet : public PopUpButtonOutlet {
public:
    explicit ComboBoxOutlet(QComboBox *box) : box(box) {}
    void removeAllItems() override;
    void addItemsWithTitles(const QStringList &titles) override;
    QStringList itemTitles() const override;
    void selectItemAtIndex(int index) override;
    int indexOfSelectedItem() const override;
    QString titleOfSelectedItem() const override;
    void setEnabled(bool enabled) override;

private:
    QPointer<QComboBox> box;
};

class ButtonOutlet : public ControlOutlet {
public:
    explicit ButtonOutlet(QAbstractButton *button) : button(button) {}
    void setEnabled(bool enabled) override;

private:
    QPointer<QAbstractButton> button;
};
