#pragma once

#include "common/outlets.h"
#include "common/textlabel.h"

#include <optional>

// Stand-ins for a page's widgets that remember what a controller did to them.
struct RecordingLabel : TextLabel {
    QString text;
    std::optional<Qt::GlobalColor> color;
    void setStringValue(const QString &t) override { text = t; }
    void setTextColor(Qt::GlobalColor c) override { color = c; }
};

struct RecordingTitle : TitleOutlet {
    std::optional<Rgba> background;
    std::optional<Rgba> text;
    void setBackgroundColor(const Rgba &c) override { background = c; }
    void setTextColor(const Rgba &c) override { text = c; }
};

struct RecordingControl : ControlOutlet {
    std::optional<bool> enabled;
    void setEnabled(bool e) override { enabled = e; }
};

struct RecordingTextField : TextFieldOutlet {
    QString value;
    std::optional<bool> editable;
    std::optional<bool> enabled;
    QString stringValue() const override { return value; }
    void setStringValue(const QString &t) override { value = t; }
    void setEditable(bool e) override { editable = e; }
    void setEnabled(bool e) override { enabled = e; }
};

struct RecordingPopup : PopUpButtonOutlet {
    QStringList titles;
    int selected = -1;
    std::optional<bool> enabled;
    void removeAllItems() override {
        titles.clear();
        selected = -1;
    }
    void addItemsWithTitles(const QStringList &t) override {
        titles += t;
        if (selected < 0 && !titles.isEmpty())
            selected = 0;
    }
    QStringList itemTitles() const override { return titles; }
    void selectItemAtIndex(int index) override { selected = index; }
    int indexOfSelectedItem() const override { return selected; }
    QString titleOfSelectedItem() const override { return titles.value(selected); }
    void setEnabled(bool e) override { enabled = e; }
};
