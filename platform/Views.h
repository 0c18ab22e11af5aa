// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "platform/Color.h"
#include "platform/ObserverList.h"
#include "platform/UserDefaults.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>
#include <vector>

/// A declarative view tree: what a page of settings consists of, and how it hangs together. A plug-in writes it, and any
/// toolkit renders it: a window with widgets, a terminal with text. Lengths are in points. Views belong to the main thread.
namespace sealscope SEALSCOPE_API {

struct Size {
    double width = 0;
    double height = 0;
    bool operator==(const Size&) const = default;
};

/// A value kept elsewhere that a control shows and changes.
template <class Value> struct Binding {
    std::function<Value()> get;
    std::function<void(Value)> set;
    /// Calls a function whenever the value has changed, by the control or elsewhere. Empty when nobody else changes it.
    std::function<ObservationToken(std::function<void()>)> observe;
};

/// Bound to user defaults: shows `fallback` where nothing of its type is stored.
Binding<std::string> bindingToDefaults(UserDefaults& defaults, std::string key, std::string fallback = {});
Binding<bool> bindingToSwitch(UserDefaults& defaults, std::string key);

struct Font {
    enum class Weight : std::uint8_t { regular, bold };
    enum class Design : std::uint8_t { standard, monospaced };
    double points = 13;
    Weight weight = Weight::regular;
    Design design = Design::standard;
    bool operator==(const Font&) const = default;
};

enum class HorizontalAlignment : std::uint8_t { leading, center, trailing };
enum class VerticalAlignment : std::uint8_t { top, center, bottom };
enum class Truncation : std::uint8_t { tail, middle };

class AnyView;

struct EmptyView {};

/// One below the other.
struct VStack {
    HorizontalAlignment alignment = HorizontalAlignment::center;
    double spacing = 8;
    std::vector<AnyView> children;
};

/// One beside the other, in reading direction.
struct HStack {
    VerticalAlignment alignment = VerticalAlignment::center;
    double spacing = 8;
    std::vector<AnyView> children;
};

struct Text {
    std::string text;
};

/// A line of text to edit; each change of it is set at once.
struct TextField {
    std::string label;
    Binding<std::string> text;
    std::string placeholder;  ///< shown dimmed while the text is empty
    bool hasRoundedBorder = false;
};

struct Button {
    std::string title;
    std::function<void()> action;
};

/// A switch.
struct Toggle {
    std::string title;
    Binding<bool> isOn;
};

struct ColorWell {
    std::string title;
    Binding<std::optional<Color>> color;
};

/// How a view is drawn and laid out, whatever it is.
struct ViewStyle {
    std::optional<Font> font;  ///< the toolkit's own when absent
    bool isSecondary = false;  ///< drawn in the dimmed colour
    double verticalPadding = 0;
    bool fillsWidth = false;  ///< takes all the width there is, with its content at the leading edge
    std::optional<int> lineLimit;
    Truncation truncation = Truncation::tail;
    bool isSelectable = false;  ///< its text can be selected and copied
    std::string tooltip;
    bool operator==(const ViewStyle&) const = default;
};

/// Any view. Cheap to copy, and never changed once made: each modifier gives a view of its own.
class AnyView {
public:
    using Content = std::variant<EmptyView, VStack, HStack, Text, TextField, Button, Toggle, ColorWell>;

    AnyView() : AnyView(EmptyView{}) {}
    template <class View>
        requires(!std::is_same_v<std::remove_cvref_t<View>, AnyView> && std::is_constructible_v<Content, View>)
    AnyView(View view) : AnyView(std::make_shared<Content>(std::move(view)))
    {}

    const Content& content() const { return *content_; }
    const ViewStyle& style() const { return style_; }

    AnyView font(Font font) const;
    AnyView secondary() const;
    AnyView verticalPadding(double points) const;
    AnyView fillingWidth() const;
    AnyView lineLimit(int lines, Truncation truncation) const;
    AnyView selectable() const;
    AnyView tooltip(std::string text) const;
    /// Calls `changed` whenever the bound value becomes another one while the view is shown.
    template <class Value> AnyView onChange(const Binding<Value>& value, std::function<void()> changed) const
    {
        return observing([value, changed = std::move(changed)] {
            auto last = std::make_shared<Value>(value.get());
            return value.observe ? value.observe([value, changed, last] {
                if (Value now = value.get(); now != *last) *last = std::move(now), changed();
            })
                                 : ObservationToken();
        });
    }

    /// For who renders the view: it is shown from now on, until the token is let go.
    [[nodiscard]] ObservationToken show() const;

private:
    using Observing = std::function<ObservationToken()>;
    explicit AnyView(std::shared_ptr<const Content> content) : content_(std::move(content)) {}
    AnyView observing(Observing begin) const;
    void show(std::vector<ObservationToken>& tokens) const;

    std::shared_ptr<const Content> content_;
    ViewStyle style_;
    std::vector<Observing> observing_;
};

/// A window with a view in it.
struct Window {
    std::string title;
    AnyView content;
};

}  // namespace sealscope SEALSCOPE_API
