#include "labeloutlet.h"

#include <QLabel>
#include <QPalette>

void LabelOutlet::setStringValue(const QString &text) {
    if (label)
        label->setText(text);
}

void LabelOutlet::setTextColor(Qt::GlobalColor color) {
    if (!label)
        return;
    QPalette palette = label->palette();
    palette.setColor(QPalette::WindowText, QColor(color));
    label->setPalette(palette);
}
