// SPDX-License-Identifier: Apache-2.0
#include "app/export/Objects.h"

#include "app/session/Exchanges.h"
#include "app/session/InOrder.h"
#include "platform/OutputFile.h"
#include "platform/UTF8.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <unictype.h>
#include <unistr.h>
#include <utility>

namespace sealscope {

namespace {

namespace fs = std::filesystem;

/// Control, format, private and unassigned characters, and those that some file system or shell has a meaning for.
bool isAllowed(ucs4_t character)
{
    static constexpr std::string_view reserved = "/\\:*?\"<>|";
    if (character < 0x80 && (character < 0x20 || character == 0x7F || reserved.contains(static_cast<char>(character)))) return false;
    return !uc_is_general_category_withtable(character, UC_CATEGORY_MASK_C | UC_CATEGORY_MASK_Zl | UC_CATEGORY_MASK_Zp);
}

/// Names that mean a device on some systems, with whatever extension.
bool isDevice(std::string_view name)
{
    std::string stem(name.substr(0, name.find('.')));
    std::ranges::transform(stem, stem.begin(), [](char letter) { return letter >= 'a' && letter <= 'z' ? letter - 32 : letter; });
    static constexpr std::array<std::string_view, 4> plain{"CON", "PRN", "AUX", "NUL"};
    if (std::ranges::find(plain, stem) != plain.end()) return true;
    return stem.size() == 4 && (stem.starts_with("COM") || stem.starts_with("LPT")) && stem[3] >= '1' && stem[3] <= '9';
}

/// Where the extension begins; the end of the name when it has none.
std::size_t extensionOf(std::string_view name)
{
    const std::size_t dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? name.size() : dot;
}

std::optional<std::string> textAttribute(const StreamMessage& message, std::string_view key)
{
    const VELValue* const value = message.attribute(key);
    const auto* const text = value ? std::get_if<std::string>(value) : nullptr;
    return text ? std::optional(*text) : std::nullopt;
}

}  // namespace

std::string safeFileName(std::string_view name)
{
    constexpr std::size_t longest = 200;
    const std::string text = utf8::repaired(DataView(name));
    std::string safe;
    for (std::size_t at = 0; at < text.size();) {
        ucs4_t character = 0;
        const int length = u8_mbtouc(&character, reinterpret_cast<const std::uint8_t*>(text.data()) + at, text.size() - at);
        if (safe.size() + static_cast<std::size_t>(length) > longest) break;
        if (isAllowed(character))
            safe.append(text, at, static_cast<std::size_t>(length));
        else if (!safe.ends_with('_'))
            safe += '_';
        at += static_cast<std::size_t>(length);
    }
    // Hidden names, "." and "..", and those that lose their end on some systems.
    while (safe.starts_with('.') || safe.starts_with(' ') || safe.starts_with('-')) safe.erase(0, 1);
    while (safe.ends_with('.') || safe.ends_with(' ')) safe.pop_back();
    if (safe.find_first_not_of('_') == std::string::npos) return "object";
    return isDevice(safe) ? "_" + safe : safe;
}

std::string ObjectFolder::freePath(const std::string& name)
{
    const std::size_t dot = extensionOf(name);
    // Those below are taken, and stay so.
    for (std::int64_t& number = nextNumber_.try_emplace(name, 1).first->second;; ++number) {
        const std::string candidate = number == 1 ? name : fmt::format("{}-{}{}", name.substr(0, dot), number, name.substr(dot));
        std::string path = (fs::path(folder_) / candidate).string();
        std::error_code error;
        const bool isThere = existing_ == Existing::kept && fs::symlink_status(path, error).type() != fs::file_type::not_found;
        if (!isThere && used_.insert(candidate).second) return path;
    }
}

std::optional<SavedObject> ObjectFolder::save(std::int64_t stream, const StreamMessage& message, std::optional<std::string> url,
                                              const std::stop_token& stop)
{
    if (!message.body) return std::nullopt;
    SavedObject saved{.stream = stream,
                      .direction = message.direction,
                      .name = safeFileName(message.filename.value_or("object")),
                      .url = std::move(url),
                      .contentType = textAttribute(message, "contentType")};
    std::optional<OutputFile> file;
    std::string path;
    const StreamBody::Ending ending = message.body->forEachPiece([&](DataView piece) {
        if (piece.isEmpty()) return true;
        if (folder_.empty()) {
            saved.bytes += piece.size();
            return !stop.stop_requested();
        }
        if (!file) {
            path = freePath(saved.name);
            auto created = OutputFile::create(path, existing_ == Existing::replaced ? ExistingFile::isReplaced : ExistingFile::stays,
                                              OutputFile::Kind::regular);
            if (!created) {
                saved.problem = FileProblem{path, created.error()};
                return false;
            }
            file.emplace(std::move(*created));
        }
        file->write(piece);
        saved.bytes += piece.size();
        return file->isGood() && !stop.stop_requested();
    });
    if (!file && saved.bytes == 0) return saved.problem ? std::optional(std::move(saved)) : std::nullopt;
    saved.isComplete = ending.isComplete && !stop.stop_requested();
    saved.remark = ending.reason;
    if (!file) return saved;
    if (const auto finished = file->finish())
        saved.file = path;
    else
        saved.problem = FileProblem{path, finished.error()};
    return saved;
}

bool saveObjects(const Session& session, const std::vector<std::int64_t>& streams, ObjectFolder& folder, const std::stop_token& stop,
                 const std::function<bool(const SavedObject&)>& told, std::int64_t mostMessages)
{
    // Of a stream with more exchanges, those behind are made when their turn comes.
    constexpr std::size_t madeAtOnce = 64, bytesAtOnce = 1 << 18;
    struct Read {
        std::int64_t number = 0;
        std::vector<Exchange> exchanges;
        std::unique_ptr<StreamExchangeReader> rest;
    };
    const auto read = [&](std::int64_t number) {
        Read found{.number = number, .rest = applicationExchanges(session, session.stream(number))};
        for (std::size_t bytes = 0; found.rest && found.rest->nextTime(); bytes += heldBytes(found.exchanges.back())) {
            if (found.exchanges.size() == madeAtOnce || bytes >= bytesAtOnce) break;
            found.rest->next(found.exchanges.emplace_back());
        }
        return found;
    };
    bool isWhole = true;
    const auto saveOf = [&](std::int64_t number, const Exchange& exchange) {
        if (mostMessages <= 0) return isWhole = false;
        mostMessages -= 2;
        for (const std::optional<StreamMessage>* const message : {&exchange.request, &exchange.reply}) {
            if (!*message) continue;
            auto url = textAttribute(exchange.request ? *exchange.request : **message, "url");
            const auto object = folder.save(number, **message, std::move(url), stop);
            if (object && (!told(*object) || stop.stop_requested())) return false;
        }
        return true;
    };
    const auto save = [&](Read found) {
        for (const Exchange& exchange : found.exchanges)
            if (!saveOf(found.number, exchange)) return false;
        found.exchanges.clear();
        for (Exchange exchange; found.rest && found.rest->nextTime();) {
            found.rest->next(exchange);
            if (!saveOf(found.number, exchange)) return false;
        }
        return !stop.stop_requested();
    };
    const auto weight = [&](std::int64_t number) { return session.weight(number); };
    inOrder(streams, weight, read, save);
    return isWhole;
}

}  // namespace sealscope
