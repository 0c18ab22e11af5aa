// SPDX-License-Identifier: Apache-2.0
#include "platform/Views.h"

namespace sealscope {

namespace {

std::function<ObservationToken(std::function<void()>)> observing(UserDefaults& defaults, std::string key)
{
    return [&defaults, key = std::move(key)](std::function<void()> changed) { return defaults.observe(key, std::move(changed)); };
}

}  // namespace

Binding<std::string> bindingToDefaults(UserDefaults& defaults, std::string key, std::string fallback)
{
    return {
        .get = [&defaults, key, fallback = std::move(fallback)] { return defaults.string(key).value_or(fallback); },
        .set = [&defaults, key](std::string text) { defaults.set(key, std::move(text)); },
        .observe = observing(defaults, key),
    };
}

Binding<bool> bindingToSwitch(UserDefaults& defaults, std::string key)
{
    return {
        .get = [&defaults, key] { return defaults.boolean(key); },
        .set = [&defaults, key](bool isOn) { defaults.set(key, isOn); },
        .observe = observing(defaults, key),
    };
}

AnyView AnyView::font(Font font) const
{
    AnyView view = *this;
    view.style_.font = font;
    return view;
}

AnyView AnyView::secondary() const
{
    AnyView view = *this;
    view.style_.isSecondary = true;
    return view;
}

AnyView AnyView::verticalPadding(double points) const
{
    AnyView view = *this;
    view.style_.verticalPadding = points;
    return view;
}

AnyView AnyView::fillingWidth() const
{
    AnyView view = *this;
    view.style_.fillsWidth = true;
    return view;
}

AnyView AnyView::lineLimit(int lines, Truncation truncation) const
{
    AnyView view = *this;
    view.style_.lineLimit = lines;
    view.style_.truncation = truncation;
    return view;
}

AnyView AnyView::selectable() const
{
    AnyView view = *this;
    view.style_.isSelectable = true;
    return view;
}

AnyView AnyView::tooltip(std::string text) const
{
    AnyView view = *this;
    view.style_.tooltip = std::move(text);
    return view;
}

AnyView AnyView::observing(Observing begin) const
{
    AnyView view = *this;
    view.observing_.push_back(std::move(begin));
    return view;
}

ObservationToken AnyView::show() const
{
    auto tokens = std::make_shared<std::vector<ObservationToken>>();
    show(*tokens);
    return tokens;
}

void AnyView::show(std::vector<ObservationToken>& tokens) const
{
    for (const Observing& begin : observing_) tokens.push_back(begin());
    const std::vector<AnyView>* children = nullptr;
    if (const auto* stack = std::get_if<VStack>(content_.get())) children = &stack->children;
    if (const auto* stack = std::get_if<HStack>(content_.get())) children = &stack->children;
    if (!children) return;
    for (const AnyView& child : *children) child.show(tokens);
}

}  // namespace sealscope
