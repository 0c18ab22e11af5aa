// SPDX-License-Identifier: Apache-2.0
#include "Sealscope/TLSKeylogSection.h"

#include "host/VELCommonTools/KeylogLocations.h"
#include "host/VELCommonTools/KeylogUserFile.h"
#include "host/VELCommonTools/Spacing.h"
#include "host/VELKonstantsKeys/VELProtocolKonstants.h"
#include "platform/Bundle.h"
#include "platform/Notifications.h"
#include "platform/OpenPanel.h"
#include "platform/Pasteboard.h"
#include "platform/UserDefaults.h"

namespace sealscope {

namespace {

constexpr double spacing = rawValue(Spacing::regular);
constexpr Font titleFont{.points = 12, .weight = Font::Weight::bold};
constexpr Font explanationFont{.points = 11};
constexpr Font controlFont{.points = 11, .design = Font::Design::monospaced};

std::string hostText(std::string_view key) { return std::string(Bundle::main().localizedString(key, "Localizable")); }

AnyView title(std::string_view key) { return AnyView(Text{hostText(key)}).font(titleFont); }

AnyView explanation(std::string text) { return AnyView(Text{std::move(text)}).font(explanationFont).secondary(); }

AnyView controls(AnyView value, AnyView button)
{
    return HStack{VerticalAlignment::center, spacing, {std::move(value), std::move(button)}};
}

AnyView group(std::vector<AnyView> rows)
{
    return AnyView(VStack{HorizontalAlignment::leading, 8, std::move(rows)}).fillingWidth().verticalPadding(spacing);
}

void choose(const Binding<std::string>& keylogPath)
{
    const OpenPanel panel{.canChooseFiles = true, .canChooseDirectories = false, .allowsMultipleSelection = false};
    const OpenPanel::Choice chosen = panel.runModal();
    if (!chosen) return;
    KeylogUserFile::remember(chosen->front(), UserDefaults::standard());
    keylogPath.set(chosen->front().string());
}

void copyManagedKeylog()
{
    // Whoever is pointed at the file finds it there, and readable to its owner alone. Where it cannot be made, that program says so.
    static_cast<void>(KeylogLocations::makeLiveKeylog());
    Pasteboard::general().clearContents();
    Pasteboard::general().setString("SSLKEYLOGFILE=" + KeylogLocations::liveKeylog().string());
}

void announceChange()
{
    for (const VELProtocolKonstants konstant : {VELProtocolKonstants::keylogChanged, VELProtocolKonstants::reloadStreams})
        NotificationCenter::standard().post({.name = std::string(rawValue(konstant))});
}

}  // namespace

TLSKeylogSection::TLSKeylogSection()
{
    static const std::string key(KeylogUserFile::pathDefaultsKey());
    keylogPath = bindingToDefaults(UserDefaults::standard(), key);
}

AnyView TLSKeylogSection::body() const
{
    const AnyView field = AnyView(TextField{.text = keylogPath, .placeholder = hostText("/path/to/keylog.txt"), .hasRoundedBorder = true});
    const AnyView managedPath = Text{KeylogLocations::liveKeylog().string()};
    const AnyView copyButton = Button{hostText("Copy SSLKEYLOGFILE=…"), copyManagedKeylog};
    return AnyView(VStack{HorizontalAlignment::leading,
                          24,
                          {group({
                               title("Automatic detection"),
                               explanation(hostText("TLS sessions are detected automatically from packet content on any TCP port. "
                                                    "No port configuration is required.")),
                           }),
                           group({
                               title("TLS key log (SSLKEYLOGFILE)"),
                               explanation("Point this at an SSLKEYLOGFILE to decrypt TLS 1.3 sessions in Follow TCP Stream. "
                                           "Defaults to the $SSLKEYLOGFILE environment variable when empty."),
                               controls(field.font(controlFont),
                                        AnyView(Button{hostText("Choose…"), [path = keylogPath] { choose(path); }}).font(controlFont)),
                           }),
                           group({
                               title("Managed key log"),
                               explanation(hostText("The app records TLS secrets from the proxy here and always reads it. Point your "
                                                    "browser or curl at this file to decrypt manually-captured traffic too.")),
                               controls(managedPath.font(controlFont).lineLimit(1, Truncation::middle).selectable(),
                                        copyButton.font(controlFont)
                                            .tooltip(hostText("Copy an export line to point a browser or curl at the managed key log"))),
                           })}})
        .onChange(keylogPath, announceChange);
}

}  // namespace sealscope
