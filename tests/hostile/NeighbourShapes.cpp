// SPDX-License-Identifier: Apache-2.0
#include "harness/TempDirectory.h"
#include "tests/hostile/Shape.h"

#include <sys/stat.h>

namespace sealscope::hostile {

namespace {

namespace fs = std::filesystem;

/// A session that a key log could open, and a key log made by a function.
Made besideKeyLog(const fs::path& folder, const std::function<std::string()>& keyLog)
{
    Attack attack;
    attack.open(0);
    attack.send(0, false, clientHello(serverName("example.org")));
    attack.send(0, true, serverHello());
    attack.send(0, true, record(23, Bytes(64, 1)));
    Made made = save(folder, attack);
    const std::string text = keyLog();
    writeFile(folder / "keys", DataView(std::string_view(text)));
    return made;
}

/// Names that a terminal would obey, or that read otherwise than they are.
const std::string oddName = "a\x1B]0;owned\x07\n\r\xE2\x80\xAE"
                            "b\xFF.pcap";

}  // namespace

std::vector<Shape> neighbourShapes()
{
    std::vector<Shape> shapes;
    const std::vector<std::vector<std::string>> thatTakeKeyLogs = {{"streams"}, {"streams", "--json"}, {"follow"}};
    const auto addKeyLog = [&](std::string name, std::function<std::string()> text) {
        shapes.push_back({.name = std::move(name),
                          .make = [text](const auto& folder) { return besideKeyLog(folder, text); },
                          .keyLog = "keys",
                          .commands = thatTakeKeyLogs});
    };
    addKeyLog("KeyLogOfOneLine", [] { return std::string(20 << 20, 'a'); });
    addKeyLog("KeyLogOfEmptyLines", [] { return std::string(8 << 20, '\n'); });
    addKeyLog("KeyLogOfLineEndsOfAllKinds", [] { return times("\r\v\f\xC2\x85\xE2\x80\xA8\xE2\x80\xA9\r\n", 200'000); });
    addKeyLog("KeyLogOfMarks", [] { return "CLIENT_RANDOM " + times("\xCC\x81", 1'000'000); });
    addKeyLog("KeyLogOfZeros", [] { return std::string(8 << 20, '\0'); });
    addKeyLog("KeyLogThatIsNoText", [] { return times("\xFF\xC0\x80\xED\xA0\x80 \x1B[31m\n", 300'000); });
    addKeyLog("KeyLogOfOneSecretManyTimes",
              [] { return times("CLIENT_RANDOM " + times("07", 32) + " " + times("ab", 48) + "\n", 80'000); });
    addKeyLog("KeyLogOfLabels", [] {
        std::string text;
        for (int i = 0; i < 60'000; ++i) text += "LABEL_" + std::to_string(i) + "\x1B[2J " + times("07", 32) + " " + times("ab", 48) + "\n";
        return text;
    });
    addKeyLog("KeyLogOfLongSecrets", [] { return times("CLIENT_RANDOM " + times("07", 32) + " " + times("ab", 1'000'000) + "\n", 4); });
    shapes.push_back({.name = "KeyLogThatIsAPipe",
                      .make =
                          [](const auto& folder) {
                              const Made made = besideKeyLog(folder, [] { return std::string(); });
                              fs::remove(folder / "keys");
                              mkfifo((folder / "keys").c_str(), 0600);
                              return made;
                          },
                      .keyLog = "keys",
                      .commands = thatTakeKeyLogs});
    shapes.push_back({.name = "KeyLogWithoutEnd",
                      .make =
                          [](const auto& folder) {
                              const Made made = besideKeyLog(folder, [] { return std::string(); });
                              fs::remove(folder / "keys");
                              fs::create_symlink("/dev/zero", folder / "keys");
                              return made;
                          },
                      .keyLog = "keys",
                      .commands = thatTakeKeyLogs});

    shapes.push_back({.name = "NameThatATerminalObeys",
                      .make =
                          [](const auto& folder) {
                              Attack attack(4'711);  // which no decoder knows, so that the name is told
                              attack.frame(Bytes(40, 1));
                              const Made made = save(folder, attack);
                              fs::rename(folder / "capture", folder / oddName);
                              return made;
                          },
                      .arguments = {oddName}});
    shapes.push_back({.name = "NameOfNothing", .make = [](const auto&) { return Made{}; }, .arguments = {"./" + oddName}});
    shapes.push_back({.name = "NamesBeyondNumber",
                      .make =
                          [](const auto& folder) {
                              Attack attack;
                              attack.open(0);
                              return save(folder, attack);
                          },
                      .arguments = std::vector<std::string>(400, "capture")});

    const auto addSettings = [&](std::string name, std::function<std::string()> text) {
        shapes.push_back({.name = std::move(name),
                          .make =
                              [text](const auto& folder) {
                                  fs::create_directories(folder / "config/sealscope");
                                  const std::string json = text();
                                  writeFile(folder / "config/sealscope/settings.json", DataView(std::string_view(json)));
                                  Attack attack;
                                  attack.open(0);
                                  attack.send(0, false, clientHello());
                                  return save(folder, attack);
                              },
                          .commands = {{"settings", "list"}, {"settings"}, {"packets"}, {"streams"}}});
    };
    addSettings("SettingsInSettings", [] { return "{\"a\":" + times("[", 2'000'000); });
    addSettings("SettingsOfEveryKey", [] {
        std::string text = "{\"z\":1";
        for (int i = 0; i < 150'000; ++i) text += ",\"\\u001b[3" + std::to_string(i) + "m\":\"\\u001b]0;x\\u0007\"";
        return text + "}";
    });
    addSettings("SettingsThatAreSomethingElse", [] {
        return std::string(
            R"({"com_quillmarshworks_vel_tls_color":[1],"com_quillmarshworks_vel_tls_color_use":"\u001b[2J",)"
            R"("com_quillmarshworks_vel_tls_protocols":{"data":"////"},"com_quillmarshworks_vel_tls_keylog_path":"\u001b[2J/x"})");
    });
    addSettings("SettingsThatAreNoText", [] { return times("\xFF\x1B[2J", 1'000'000); });
    addSettings("SettingsOfOneLongText",
                [] { return "{\"com_quillmarshworks_vel_tls_keylog_path\":\"" + std::string(15 << 20, 'a') + "\"}"; });
    return shapes;
}

}  // namespace sealscope::hostile
