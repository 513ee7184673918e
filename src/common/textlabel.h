#pragma once

#include <QString>
#include <Qt>

// A status text on one of the popover's pages. Controllers write through this so that
// their logic runs, and is tested, without any widget; the shell supplies the widget.
class TextLabel {
public:
    virtual ~TextLabel() = default;
    virtual void setStringValue(const QString &text) = 0;
    virtual void setTextColor(Qt::GlobalColor color) = 0;
};
