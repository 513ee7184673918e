#pragma once

#include "common/textlabel.h"

#include <QPointer>

#include <QLabel>

// Lets a controller write a page's QLabel without knowing about widgets.
class LabelOutlet : public TextLabel {
public:
    explicit LabelOutlet(QLabel *label) : label(label) {}
    void setStringValue(const QString &text) override;
    void setTextColor(Qt::GlobalColor color) override;

private:
    QPointer<QLabel> label;
};
