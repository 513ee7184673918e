#include "widgetoutlets.h"

#include <QAbstractButton>
#include <QComboBox>
#include <QLineEdit>
#include <QMouseEvent>
#include <QSignalBlocker>

namespace {

QColor toQColor(const Rgba &c) {
    return QColor::fromRgbF(static_cast<float>(c.red), static_cast<float>(c.green),
                            static_cast<float>(c.blue), static_cast<float>(c.alpha));
}

} // namespace

void ClickableLabel::mousePressEvent(QMouseEvent *event) {
    if (event->button() == Qt::LeftButton) {
        emit clicked();
        event->accept();
        return;
    }
    QLabel::mousePressEvent(event);
}

void LabelTitleOutlet::setBackgroundColor(const Rgba &color) {
    if (!label)
        return;
    QPalette palette = label->palette();
    palette.setColor(QPalette::Window, toQColor(color));
    label->setPalette(palette);
    label->setAutoFillBackground(true);
}

void LabelTitleOutlet::setTextColor(const Rgba &color) {
    if (!label)
        return;
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, toQColor(color));
    label->setPalette(palette);
}

QString LineEditOutlet::stringValue() const {
    return field ? field->text() : QString();
}

void LineEditOutlet::setStringValue(const QString &text) {
    if (field)
        field->setText(text);
}

void LineEditOutlet::setEditable(bool editable) {
    if (field)
        field->setReadOnly(!editable);
}

void LineEditOutlet::setEnabled(bool enabled) {
    if (field)
        field->setEnabled(enabled);
}

void ComboBoxOutlet::removeAllItems() {
    if (!box)
        return;
    const QSignalBlocker quiet(box);
    box->clear();
}

void ComboBoxOutlet::addItemsWithTitles(const QStringList &titles) {
    if (!box)
        return;
    const QSignalBlocker quiet(box);
    box->addItems(titles);
}

QStringList ComboBoxOutlet::itemTitles() const {
    QStringList titles;
    if (box)
        for (int i = 0; i < box->count(); ++i)
            titles << box->itemText(i);
    return titles;
}

void ComboBoxOutlet::selectItemAtIndex(int index) {
    if (!box)
        return;
    const QSignalBlocker quiet(box);
    box->setCurrentIndex(index);
}

int ComboBoxOutlet::indexOfSelectedItem() const {
    return box ? box->currentIndex() : -1;
}

QString ComboBoxOutlet::titleOfSelectedItem() const {
    return box ? box->currentText() : QString();
}

void ComboBoxOutlet::setEnabled(bool enabled) {
    if (box)
        box->setEnabled(enabled);
}

void ButtonOutlet::setEnabled(bool enabled) {
    if (button)
        button->setEnabled(enabled);
}
