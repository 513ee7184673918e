#pragma once

#include <QString>
#include <QStringList>

// The controls of the popover's settings pages, as the controllers see them. Controllers
// write and read their page through these, so their logic runs (and is tested) without any
// widget; the shell supplies the widgets behind them.

// A colour as red, green, blue and alpha fractions of 1, so that controllers can name the
// page colours without linking Qt's GUI module.
struct Rgba {
    double red = 0;
    double green = 0;
    double blue = 0;
    double alpha = 1;
    bool operator==(const Rgba &) const = default;
};

// The looks of a channel title: the active channel's title is white on blue, the other
// one blue on light grey.
namespace PageColor {
inline constexpr Rgba selectedBlue{0.254, 0.607, 0.976, 1.0};
inline constexpr Rgba deselectedGrey{0.937, 0.937, 0.937, 1.0};
inline constexpr Rgba white{1.0, 1.0, 1.0, 1.0};
} // namespace PageColor

// A channel's section title: clicking it makes the channel the active one, and its
// colours show which one is.
class TitleOutlet {
public:
    virtual ~TitleOutlet() = default;
    virtual void setBackgroundColor(const Rgba &color) = 0;
    virtual void setTextColor(const Rgba &color) = 0;
};

class ControlOutlet {
public:
    virtual ~ControlOutlet() = default;
    virtual void setEnabled(bool enabled) = 0;
};

class TextFieldOutlet : public ControlOutlet {
public:
    virtual QString stringValue() const = 0;
    virtual void setStringValue(const QString &text) = 0;
    virtual void setEditable(bool editable) = 0;
};

// A popup list of texts with one selected item; index -1 means none is selected.
class PopUpButtonOutlet : public ControlOutlet {
public:
    virtual void removeAllItems() = 0;
    virtual void addItemsWithTitles(const QStringList &titles) = 0;
    virtual QStringList itemTitles() const = 0;
    virtual void selectItemAtIndex(int index) = 0;
    virtual int indexOfSelectedItem() const = 0;
    virtual QString titleOfSelectedItem() const = 0;
};

// The two looks of a channel title: the active channel's is white on blue, the other
// channel's blue on light grey. A page without its title outlet has nothing to paint.
inline void showTitleSelected(TitleOutlet *title) {
    if (!title)
        return;
    title->setBackgroundColor(PageColor::selectedBlue);
    title->setTextColor(PageColor::white);
}

inline void showTitleDeselected(TitleOutlet *title) {
    if (!title)
        return;
    title->setTextColor(PageColor::selectedBlue);
    title->setBackgroundColor(PageColor::deselectedGrey);
}
