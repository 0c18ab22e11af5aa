// SPDX-License-Identifier: Apache-2.0
#include "interpreters/HTTP/CurlExporter.h"

#include "interpreters/HTTP/HARValues.h"
#include "interpreters/HTTP/HTTPMessage.h"

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <string>
#include <string_view>

namespace sealscope {

namespace {

/// A body that is longer, or has a byte that no argument can have, is not for a command line.
constexpr std::int64_t longestBody = 65'536;

/// A text as one word of bash or zsh. A terminal takes control characters for keys while a command is pasted, so none is left.
std::string shellWord(std::string_view text)
{
    const auto isPlain = [](char letter) { return letter >= 0x20 && letter < 0x7F && letter != '\''; };
    if (std::ranges::all_of(text, isPlain)) return fmt::format("'{}'", text);
    std::string word = "$'";
    for (const char letter : text) {
        // A backslash begins an escape, and an exclamation mark may fetch an earlier command.
        if (isPlain(letter) && letter != '\\' && letter != '!')
            word += letter;
        else
            fmt::format_to(std::back_inserter(word), "\\x{:02x}", static_cast<std::uint8_t>(letter));
    }
    return word + '\'';
}

/// Fields that the sender sees to by itself.
bool isOwn(std::string_view name)
{
    static constexpr std::array<std::string_view, 7> own{"host", "content-length", "transfer-encoding", "connection", "accept-encoding",
                                                         "content-encoding", "expect"};
    return std::ranges::any_of(own, [&](std::string_view each) { return HeaderField::isNamed(name, each); });
}

std::string commandOf(const StreamMessage& request)
{
    const std::string_view url = HTTPMessages::text(request, "url"), method = HTTPMessages::text(request, "method");
    const auto isOf = [&](std::string_view scheme) { return HeaderField::isNamed(url.substr(0, scheme.size()), scheme); };
    // Other schemes would read files, and a tunnel is no request that could be sent again.
    if (!(isOf("http://") || isOf("https://")) || method == "CONNECT") return {};

    const HeaderFields fields = HARValues::headerFields(request);
    const std::int64_t length = request.body ? request.body->length() : 0;
    std::string command, remark;
    const auto add = [&](std::string_view option, std::string_view argument) {
        command += command.empty() ? "curl " : " \\\n  ";
        command.append(option).append(argument);
    };
    add("", shellWord(url));
    // Brackets and braces in a URL mean several to the program.
    if (url.find_first_of("[]{}") != std::string_view::npos) add("--globoff", "");
    if (method == "HEAD")
        add("--head", "");
    else if (method != (length > 0 ? "POST" : "GET"))
        add("--request ", shellWord(method));
    for (const auto& [name, value] : fields)
        if (!isOwn(name) && !name.starts_with(':')) add("--header ", shellWord(name + (value.empty() ? ";" : ": " + value)));
    if (HeaderField::find(fields, "accept-encoding")) add("--compressed", "");
    if (length > 0) {
        // Else it would get the type of a form.
        if (!HeaderField::find(fields, "content-type")) add("--header ", "'Content-Type:'");
        const Data body = length <= longestBody ? request.body->bytes() : Data();
        const std::string_view words = body.view().text();
        if (!words.empty() && !words.contains('\0')) {
            add("--data-raw ", shellWord(words));
        } else {
            add("--data-binary ", "@body.bin");
            remark = fmt::format("# body.bin: the body of {} bytes\n", length);
        }
    }
    return remark + command + '\n';
}

}  // namespace

const StreamExportFormat CurlExporter::format{
    .name = "curl",
    .description = "requests as commands of curl, which send them again from a shell",
    .fileExtension = "sh",
    .mediaType = "application/x-sh",
    .create = []() -> std::unique_ptr<StreamExporter> { return std::make_unique<CurlExporter>(); },
    .wantsExchangesAlone = true,
};

void CurlExporter::add(const ExportedStream& stream, const Write& write)
{
    for (const StreamMessage& message : stream.interpretation.messages) {
        if (message.kind != StreamMessageKind::request || !message.attribute("method")) continue;
        if (const std::string command = commandOf(message); !command.empty() && !write(DataView(command))) return;
    }
}

}  // namespace sealscope
