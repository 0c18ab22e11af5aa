// SPDX-License-Identifier: Apache-2.0
#include "app/desktop/views/ViewBuilder.h"

#include "app/desktop/views/ColorButton.h"
#include "app/desktop/views/ElidedLabel.h"

#include <QCheckBox>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>
#include <functional>
#include <memory>
#include <variant>

namespace sealscope::desktop {

namespace {

/// The size at which a view's points are meant; other ones stand in proportion to the program's own.
constexpr double ordinaryPoints = 13;

QString qt(const std::string& text) { return QString::fromStdString(text); }

/// Has a function called on the main thread, whoever changes what is bound, as long as a widget lives.
template <class Value> void follow(QWidget* widget, const Binding<Value>& binding, std::function<void()> update)
{
    if (!binding.observe) return;
    auto token = std::make_shared<ObservationToken>(binding.observe([widget, update] {
        QMetaObject::invokeMethod(widget, update, Qt::QueuedConnection);
    }));
    QObject::connect(widget, &QObject::destroyed, [token] { token->reset(); });
}

QFont fontOf(const Font& font, QFont base)
{
    if (font.design == Font::Design::monospaced) {
        const double size = base.pointSizeF();
        base = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        base.setPointSizeF(size);
    }
    base.setPointSizeF(base.pointSizeF() * font.points / ordinaryPoints);
    base.setBold(font.weight == Font::Weight::bold);
    return base;
}

Qt::Alignment alignmentOf(HorizontalAlignment alignment)
{
    switch (alignment) {
    case HorizontalAlignment::leading: return Qt::AlignLeading;
    case HorizontalAlignment::center: return Qt::AlignHCenter;
    case HorizontalAlignment::trailing: return Qt::AlignTrailing;
    }
    return {};
}

Qt::Alignment alignmentOf(VerticalAlignment alignment)
{
    switch (alignment) {
    case VerticalAlignment::top: return Qt::AlignTop;
    case VerticalAlignment::center: return Qt::AlignVCenter;
    case VerticalAlignment::bottom: return Qt::AlignBottom;
    }
    return {};
}

/// What takes all the width it is given, or holds something that does.
bool isWide(const AnyView& view)
{
    if (view.style().fillsWidth || std::holds_alternative<TextField>(view.content()) || std::holds_alternative<Text>(view.content()))
        return true;
    if (const auto* column = std::get_if<VStack>(&view.content())) return std::ranges::any_of(column->children, isWide);
    const auto* const row = std::get_if<HStack>(&view.content());
    return row && std::ranges::any_of(row->children, isWide);
}

struct Builder {
    const AnyView& view;

    QWidget* operator()(const EmptyView&) const { return nullptr; }

    QWidget* operator()(const VStack& stack) const
    {
        auto* const widget = new QWidget;
        auto* const layout = new QVBoxLayout(widget);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSpacing(static_cast<int>(stack.spacing));
        for (const AnyView& child : stack.children)
            if (QWidget* const made = makeWidget(child))
                layout->addWidget(made, 0, isWide(child) ? Qt::Alignment() : alignmentOf(stack.alignment));
        return widget;
    }

    QWidget* operator()(const HStack& stack) const
    {
        auto* const widget = new QWidget;
        auto* const layout = new QHBoxLayout(widget);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->setSpacing(static_cast<int>(stack.spacing));
        for (const AnyView& child : stack.children)
            if (QWidget* const made = makeWidget(child)) layout->addWidget(made, isWide(child) ? 1 : 0, alignmentOf(stack.alignment));
        return widget;
    }

    QWidget* operator()(const Text& text) const
    {
        QLabel* const label = view.style().lineLimit == 1 ? new ElidedLabel(view.style().truncation == Truncation::middle ? Qt::ElideMiddle
                                                                                                                           : Qt::ElideRight)
                                                          : new QLabel;
        label->setTextFormat(Qt::PlainText);
        label->setText(qt(text.text));
        label->setWordWrap(view.style().lineLimit != 1);
        if (view.style().isSecondary) label->setForegroundRole(QPalette::PlaceholderText);
        if (view.style().isSelectable) label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::TextSelectableByKeyboard);
        return label;
    }

    QWidget* operator()(const TextField& field) const
    {
        auto* const edit = new QLineEdit(qt(field.text.get()));
        edit->setPlaceholderText(qt(field.placeholder));
        edit->setFrame(field.hasRoundedBorder);
        edit->setAccessibleName(qt(field.label.empty() ? field.placeholder : field.label));
        QObject::connect(edit, &QLineEdit::textEdited, edit, [set = field.text.set](const QString& text) { set(text.toStdString()); });
        follow(edit, field.text, [edit, get = field.text.get] {
            if (const QString text = qt(get()); text != edit->text()) edit->setText(text);
        });
        if (field.label.empty()) return edit;
        auto* const row = new QWidget;
        auto* const layout = new QHBoxLayout(row);
        layout->setContentsMargins(0, 0, 0, 0);
        auto* const label = new QLabel(qt(field.label));
        label->setTextFormat(Qt::PlainText);
        label->setBuddy(edit);
        layout->addWidget(label);
        layout->addWidget(edit, 1);
        return row;
    }

    QWidget* operator()(const Button& button) const
    {
        // An ampersand in a foreign title is no shortcut.
        auto* const widget = new QPushButton(qt(button.title).replace(QLatin1Char('&'), QLatin1String("&&")));
        widget->setAutoDefault(false);
        QObject::connect(widget, &QPushButton::clicked, widget, [action = button.action] {
            if (action) action();
        });
        return widget;
    }

    QWidget* operator()(const Toggle& toggle) const
    {
        auto* const box = new QCheckBox(qt(toggle.title).replace(QLatin1Char('&'), QLatin1String("&&")));
        box->setChecked(toggle.isOn.get());
        QObject::connect(box, &QCheckBox::clicked, box, toggle.isOn.set);
        follow(box, toggle.isOn, [box, get = toggle.isOn.get] { box->setChecked(get()); });
        return box;
    }

    QWidget* operator()(const ColorWell& well) const
    {
        auto* const button = new ColorButton(qt(well.title));
        const auto show = [button, get = well.color.get] {
            const auto color = get();
            button->setColor(color ? std::optional(QColor(color->red, color->green, color->blue, color->alpha)) : std::nullopt);
        };
        show();
        QObject::connect(button, &ColorButton::colorChosen, button, [set = well.color.set](const QColor& color) {
            const auto part = [](int value) { return static_cast<std::uint8_t>(value); };
            set(Color{part(color.red()), part(color.green()), part(color.blue()), part(color.alpha())});
        });
        follow(button, well.color, show);
        return button;
    }
};

}  // namespace

QWidget* makeWidget(const AnyView& view)
{
    QWidget* const widget = std::visit(Builder{view}, view.content());
    if (!widget) return nullptr;
    const ViewStyle& style = view.style();
    if (style.font) widget->setFont(fontOf(*style.font, widget->font()));
    // A tooltip takes what looks like markup for it.
    if (!style.tooltip.empty()) widget->setToolTip(QLatin1String("<qt>") + qt(style.tooltip).toHtmlEscaped() + QLatin1String("</qt>"));
    if (style.verticalPadding > 0 && widget->layout()) {
        const int padding = static_cast<int>(style.verticalPadding);
        widget->layout()->setContentsMargins(0, padding, 0, padding);
    }
    if (style.fillsWidth) widget->setSizePolicy(QSizePolicy::Expanding, widget->sizePolicy().verticalPolicy());
    return widget;
}

}  // namespace sealscope::desktop
