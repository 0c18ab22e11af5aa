// SPDX-License-Identifier: Apache-2.0
#pragma once

// What every bundle's module needs once: its own bundle, and its principal class as the record that the host asks.

#include "host/VELDependencies/VELPluginPrincipalClassProtocol.h"
#include "platform/Bundle.h"

#include <concepts>
#include <memory>
#include <optional>
#include <string>

namespace sealscope {

/// The bundle of the module that calls it; an empty one where a program links the plug-in's code. Hidden, whatever a build
/// exports: another module's function of this name finds another bundle.
[[gnu::visibility("hidden")]] inline const Bundle& plugInBundle()
{
    static constexpr char inThisModule = 0;
    static const Bundle& bundle = Bundle::containing(&inThisModule);
    return bundle;
}

/// "1.4 (27)" of the bundle's information dictionary; "0" where it says neither version nor build.
inline std::string plugInBundleVersion()
{
    const auto build = plugInBundle().infoString("CFBundleVersion");
    const auto version = plugInBundle().infoString("CFBundleShortVersionString");
    return build && version ? *version + " (" + *build + ")" : "0";
}

/// A type that can be a plug-in's principal class: made without arguments, and described by static members.
template <class Type>
concept PrincipalClassType = std::derived_from<Type, VELPluginPrincipalClassProtocol> && requires {
    { Type::principalClassName } -> std::convertible_to<std::string_view>;
    { Type::pluginTitle() } -> std::same_as<std::optional<std::string>>;
    { Type::pluginDescription() } -> std::same_as<std::optional<std::string>>;
    { Type::pluginVersion() } -> std::same_as<std::optional<std::string>>;
    { Type::pluginAuthor() } -> std::same_as<std::optional<std::string>>;
};

/// `Type::property` tells the read-only properties of the class; a type without it has none.
template <class Type> constexpr decltype(VELPrincipalClass::property) propertyOf()
{
    if constexpr (requires(std::string_view name) {
                      { Type::property(name) } -> std::same_as<std::optional<std::string>>;
                  })
        return &Type::property;
    else
        return nullptr;
}

/// The record of a principal class, one for each. What the host hands over at creation is not looked at.
template <PrincipalClassType Type>
[[gnu::visibility("hidden")]] inline constexpr VELPrincipalClass principalClassOf{
    .name = Type::principalClassName,
    .create = []() -> std::unique_ptr<VELPluginPrincipalClassProtocol> { return std::make_unique<Type>(); },
    .createWithPlugInsController = [](const std::any&) -> std::unique_ptr<VELPluginPrincipalClassProtocol> {
        return std::make_unique<Type>();
    },
    .createWithPlugInManager = [](const std::any&) -> std::unique_ptr<VELPluginPrincipalClassProtocol> { return std::make_unique<Type>(); },
    .pluginTitle = &Type::pluginTitle,
    .pluginDescription = &Type::pluginDescription,
    .pluginVersion = &Type::pluginVersion,
    .pluginAuthor = &Type::pluginAuthor,
    .property = propertyOf<Type>(),
};

}  // namespace sealscope
