// SPDX-License-Identifier: Apache-2.0
#include "tests/support/RealCaptures.h"

#include "harness/TempDirectory.h"

#include <algorithm>
#include <fmt/format.h>
#include <stdexcept>

namespace sealscope {

namespace {

std::optional<Data> readIfThere(const std::filesystem::path& path)
{
    if (!std::filesystem::exists(path)) return std::nullopt;
    return readFile(path);
}

RealCapture::Side readSide(const std::filesystem::path& directory, std::size_t stream, const char* side)
{
    const auto file = [&](const char* what) { return readIfThere(directory / fmt::format("stream-{}-{}{}.bin", stream, side, what)); };
    RealCapture::Side result{.sent = file(""), .opens = file(".opens"), .contains = file(".contains")};
    if (!result.opens) result.opens = result.sent;
    return result;
}

}  // namespace

std::vector<RealCapture> realCaptures(const std::filesystem::path& sourceDirectory)
{
    const std::filesystem::path top = sourceDirectory / "tests" / "captures";
    std::vector<RealCapture> captures;
    for (const auto& entry : std::filesystem::directory_iterator(top)) {
        if (!std::filesystem::exists(entry.path() / "capture.pcap")) continue;
        RealCapture capture{.name = entry.path().filename().string(),
                            .capture = (entry.path() / "capture.pcap").string(),
                            .keyLog = (entry.path() / "keylog.txt").string()};
        for (std::size_t stream = 0;; ++stream) {
            std::array<RealCapture::Side, 2> sides = {readSide(entry.path(), stream, "client"), readSide(entry.path(), stream, "server")};
            if (std::ranges::none_of(sides, [](const RealCapture::Side& side) { return side.sent || side.contains; })) break;
            capture.streams.push_back(std::move(sides));
        }
        captures.push_back(std::move(capture));
    }
    if (captures.empty()) throw std::runtime_error("no captures in " + top.string());
    std::ranges::sort(captures, {}, &RealCapture::name);
    return captures;
}

}  // namespace sealscope
