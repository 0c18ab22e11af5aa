// SPDX-License-Identifier: Apache-2.0
// What the package `sealscope` stands on, for itself alone: lines of NDJSON as they are made, and the pieces of a large capture. Records,
// their types and the documentation are in the package.
#include "app/plugins/PlugInLoader.h"
#include "python/core/KeyLines.h"
#include "python/core/Lines.h"
#include "python/core/OpenCapture.h"
#include "python/core/Pieces.h"

#include <chrono>
#include <cstring>
#include <future>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

namespace sealscope::python {

namespace py = pybind11;

namespace {

constexpr std::chrono::milliseconds betweenSignals(50);

void raisePendingSignals()
{
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
}

/// Does long work without the interpreter's lock, on a thread of its own, while this one looks for Ctrl-C.
template <class Work> auto interruptibly(Work work)
{
    std::stop_source stop;
    auto result = std::async(std::launch::async, [&] { return work(stop.get_token()); });
    while (true) {
        {
            const py::gil_scoped_release unlocked;
            if (result.wait_for(betweenSignals) == std::future_status::ready) break;
        }
        if (PyErr_CheckSignals() == 0) continue;
        stop.request_stop();
        {
            const py::gil_scoped_release unlocked;
            result.wait();
        }
        throw py::error_already_set();
    }
    return result.get();
}

/// The next lines as a list of str; None at the end.
py::object nextLines(Lines& lines)
{
    std::string text;
    while (true) {
        Lines::Next next{};
        {
            const py::gil_scoped_release unlocked;
            next = lines.next(text, betweenSignals);
        }
        raisePendingSignals();
        if (next == Lines::Next::end) return py::none();
        if (next == Lines::Next::lines) break;
    }
    py::list list;
    for (const char *at = text.data(), *const end = at + text.size(); at < end;) {
        const auto* behind = static_cast<const char*>(std::memchr(at, '\n', static_cast<std::size_t>(end - at)));
        if (!behind) behind = end;
        list.append(py::str(at, static_cast<std::size_t>(behind - at)));
        at = behind + 1;
    }
    return list;
}

void closeLines(Lines& lines)
{
    const py::gil_scoped_release unlocked;
    lines.close();
}

/// As the arguments of `CaptureError`: file, reason, packets before, sentence.
py::tuple told(const CaptureError& error) { return py::make_tuple(error.file, error.reason(), error.packetsBefore, error.text()); }

py::list told(const std::vector<CaptureError>& errors)
{
    py::list list;
    for (const CaptureError& error : errors) list.append(told(error));
    return list;
}

DecryptionReach reachOf(const std::string& name)
{
    if (name == "full") return DecryptionReach::full;
    if (name == "strict") return DecryptionReach::strict;
    throw py::value_error("reach: expected 'full' or 'strict'");
}

template <class Item> py::bytes bytesOf(const std::vector<Item>& items)
{
    return {reinterpret_cast<const char*>(items.data()), items.size() * sizeof(Item)};
}

template <class Item> std::vector<Item> itemsOf(std::string_view bytes)
{
    std::vector<Item> items(bytes.size() / sizeof(Item));
    std::memcpy(static_cast<void*>(items.data()), bytes.data(), items.size() * sizeof(Item));
    return items;
}

py::dict toDict(const FileScan& scan)
{
    py::dict dict;
    dict["first"] = scan.first ? py::object(py::make_tuple(scan.first->seconds, scan.first->units, scan.first->resolution)) : py::none();
    dict["packets"] = scan.packets;
    dict["bytes"] = scan.bytes;
    dict["connections"] = scan.connections;
    dict["others"] = bytesOf(scan.others);
    dict["pairs"] = bytesOf(scan.pairs);
    dict["clients"] = bytesOf(scan.clients);
    dict["strangers"] = bytesOf(scan.strangers);
    dict["secrets"] = scan.secrets.size();
    dict["errors"] = told(scan.errors);
    return dict;
}

py::dict toDict(const KeyLogFacts& facts)
{
    py::dict dict;
    dict["secrets"] = facts.material.secrets;
    dict["client_randoms"] = facts.material.clientRandoms;
    dict["labels"] = facts.material.labels;
    dict["connections"] = facts.connections;
    py::list problems;
    for (const auto& [file, found] : facts.problems)
        problems.append(py::make_tuple(file, static_cast<int>(found.problem), found.error, found.size, found.lines, found.validLines,
                                       found.firstInvalidLine));
    dict["problems"] = problems;
    return dict;
}

KeyLogFacts keyLogFactsFrom(const py::dict& dict)
{
    KeyLogFacts facts;
    facts.material.secrets = dict["secrets"].cast<std::int64_t>();
    facts.material.clientRandoms = dict["client_randoms"].cast<std::int64_t>();
    facts.material.labels = dict["labels"].cast<decltype(facts.material.labels)>();
    facts.connections = dict["connections"].cast<std::int64_t>();
    for (const auto& item : dict["problems"]) {
        const auto fields = item.cast<py::tuple>();
        facts.problems.push_back({fields[0].cast<std::string>(),
                                  {.problem = static_cast<MergedKeylog::Examination::Problem>(fields[1].cast<int>()),
                                   .error = fields[2].cast<int>(),
                                   .size = fields[3].cast<std::int64_t>(),
                                   .lines = fields[4].cast<std::int64_t>(),
                                   .validLines = fields[5].cast<std::int64_t>(),
                                   .firstInvalidLine = fields[6].cast<std::int64_t>()}});
    }
    return facts;
}

/// The bytes in an object that shows none of them, so that no message about wrong arguments does.
py::object revealed(const py::handle& secret) { return secret.attr("reveal")(); }

PieceOptions pieceOptionsFrom(const py::dict& dict)
{
    const auto kind = dict["kind"].cast<std::string>();
    const py::object text = revealed(dict["secrets"]);
    const auto secrets = text.cast<std::string_view>();
    return {.kind = kind == "exchanges" ? RowKind::exchanges
                    : kind == "objects" ? RowKind::objects
                                        : RowKind::streams,
            .folder = dict["folder"].cast<std::string>(),
            .plugIns = {.reach = reachOf(dict["reach"].cast<std::string>())},
            .secrets = SecretText(secrets),
            .keyLog = keyLogFactsFrom(dict["facts"])};
}

py::dict toDict(const PieceRows& rows)
{
    py::dict dict;
    dict["numbers"] = bytesOf(rows.numbers);
    dict["first_packets"] = bytesOf(rows.firstPackets);
    dict["before"] = bytesOf(rows.before);
    dict["rows"] = py::bytes(rows.rows);
    dict["errors"] = told(rows.errors);
    return dict;
}

Travelling travellingFrom(std::string_view pairs, std::string_view groups)
{
    Travelling travelling;
    const std::vector<PairHash> hashes = itemsOf<PairHash>(pairs);
    const std::vector<std::int64_t> numbers = itemsOf<std::int64_t>(groups);
    if (hashes.size() != numbers.size()) throw py::value_error("each pair goes to one group");
    for (std::size_t i = 0; i < hashes.size(); ++i) travelling.emplace(hashes[i], numbers[i]);
    return travelling;
}

std::unique_ptr<Piece> openPiece(const std::string& file, const std::string& filter, const std::string& reach)
{
    const PlugInOptions plugIns{.reach = reachOf(reach)};
    return interruptibly([&](const std::stop_token& stop) { return std::make_unique<Piece>(file, filter, plugIns, stop); });
}

py::list packetsOf(const Piece& piece, std::string_view pairs, std::string_view groups, const std::vector<std::int64_t>& wanted,
                   std::int64_t packetsBefore)
{
    const Travelling travelling = travellingFrom(pairs, groups);
    py::list list;
    for (const std::string& packets :
         interruptibly([&](const std::stop_token&) { return piece.packets(travelling, wanted, packetsBefore); }))
        list.append(py::bytes(packets));
    return list;
}

py::dict rowsOf(const Piece& piece, std::string_view pairs, std::string_view groups, std::int64_t packetsBefore, const py::dict& options)
{
    return toDict(interruptibly([&, travelling = travellingFrom(pairs, groups), wanted = pieceOptionsFrom(options)](
                                    const std::stop_token& stop) { return piece.rows(travelling, packetsBefore, wanted, stop); }));
}

py::dict workOnPacketsFrom(const py::list& pieces, const py::dict& options)
{
    std::string packets;
    for (const py::handle piece : pieces) packets += revealed(piece).cast<std::string_view>();
    return toDict(interruptibly([packets = std::move(packets), piece = pieceOptionsFrom(options)](const std::stop_token& stop) mutable {
        return workOnPackets(std::move(packets), std::move(piece), stop);
    }));
}

/// The secrets of a machine for a capture that carries some itself, and what they amount to.
py::tuple keyLog(std::string_view embedded, std::vector<std::string> files)
{
    const auto sources = std::make_shared<const KeyLogSources>(SecretText(embedded), std::move(files));
    return py::make_tuple(std::make_unique<KeyLines>(sources->text()), toDict(keyLogFactsOf(SessionPlugIns(sources, {}))));
}

py::object toObject(const KeyLines::Lines& lines) { return lines ? py::object(bytesOf(*lines)) : py::none(); }

/// Files as tuples: clients, strangers, pairs that travel and their groups, each packed.
py::tuple keyNeeds(const KeyLines& keys, const py::list& files)
{
    std::vector<KeyLines::File> found;
    for (const py::handle file : files) {
        const auto fields = file.cast<py::tuple>();
        const auto field = [&](std::size_t i) { return fields[i].cast<std::string_view>(); };
        found.push_back({.clients = itemsOf<std::pair<PairHash, KeyLines::Client>>(field(0)),
                         .strangers = itemsOf<PairHash>(field(1)),
                         .travelling = travellingFrom(field(2), field(3))});
    }
    const KeyLines::Needs needs = interruptibly([&](const std::stop_token&) { return keys.needs(found); });
    py::list ofFiles;
    for (const auto& lines : needs.ofFiles) ofFiles.append(toObject(lines));
    py::dict ofGroups;
    for (const auto& [group, lines] : needs.ofGroups) ofGroups[py::int_(group)] = toObject(lines);
    return py::make_tuple(needs.connections, ofFiles, ofGroups);
}

py::bytes keyText(const KeyLines& keys, const std::vector<std::optional<std::string_view>>& several)
{
    std::vector<KeyLines::Lines> found;
    for (const auto& lines : several) found.push_back(lines ? KeyLines::Lines(itemsOf<std::uint32_t>(*lines)) : std::nullopt);
    const SecretText text = keys.text(KeyLines::together(found));
    return {text.data(), text.size()};
}

py::list loadPlugIns(const std::vector<std::string>& folders)
{
    py::list problems;
    for (const PlugInProblem& problem : PlugInLoader::load({folders.begin(), folders.end()}).problems) problems.append(problem.text());
    return problems;
}

std::unique_ptr<OpenCapture> openCapture(std::vector<std::string> files, std::vector<std::string> keyLogs, const std::string& reach,
                                         std::string filter, std::int64_t largestBody)
{
    SessionOptions options{.files = std::move(files),
                           .filter = std::move(filter),
                           .keyLogs = std::move(keyLogs),
                           .plugIns = {.reach = reachOf(reach), .largestDecodedBody = largestBody}};
    return interruptibly([&](const std::stop_token& stop) { return std::make_unique<OpenCapture>(options, stop); });
}

TCPSegment::Direction directionOf(const std::string& side)
{
    if (side == "client") return TCPSegment::Direction::clientToServer;
    if (side == "server") return TCPSegment::Direction::serverToClient;
    throw py::value_error("expected 'client' or 'server'");
}

}  // namespace

PYBIND11_MODULE(_core, module)
{
    static PyObject* captureError = nullptr;
    static PyObject* closedStream = nullptr;
    module.def("set_errors", [](const py::object& failure, const py::object& closed) {
        captureError = py::object(failure).release().ptr();
        closedStream = py::object(closed).release().ptr();
    });
    py::register_exception_translator([](std::exception_ptr problem) {
        try {
            if (problem) std::rethrow_exception(std::move(problem));
        } catch (const CaptureFailure& failure) {
            PyErr_SetObject(captureError, told(failure.error).ptr());
        } catch (const ClosedStream& closed) {
            PyErr_SetString(closedStream, closed.what());
        }
    });

    py::class_<Lines>(module, "Lines").def("next", &nextLines).def("close", &closeLines);
    py::class_<Plaintext>(module, "Plaintext").def("next", [](Plaintext& plaintext) {
        std::string bytes;
        {
            const py::gil_scoped_release unlocked;
            bytes = plaintext.next();
        }
        raisePendingSignals();
        return py::bytes(bytes);
    });
    py::class_<OpenCapture>(module, "Capture")
        .def(py::init(&openCapture))
        .def_property_readonly("stream_count", [](const OpenCapture& capture) { return capture.session().streamCount(); })
        .def_property_readonly("packet_count", [](const OpenCapture& capture) { return capture.session().packetCount(); })
        .def_property_readonly("errors", [](const OpenCapture& capture) { return told(capture.errors()); })
        .def("packets", &OpenCapture::packets)
        .def("streams", &OpenCapture::streams)
        .def("exchanges", &OpenCapture::exchanges)
        .def("objects",
             [](const OpenCapture& capture, StreamLines::Numbers numbers, std::string folder, bool replaces) {
                 return capture.objects(std::move(numbers), std::move(folder),
                                        replaces ? ObjectFolder::Existing::replaced : ObjectFolder::Existing::kept);
             })
        .def("messages", &OpenCapture::messages)
        .def("plaintext", [](const OpenCapture& capture, std::int64_t stream, const std::string& side) {
            const TCPSegment::Direction direction = directionOf(side);
            capture.checked(stream);
            const py::gil_scoped_release unlocked;
            return std::make_unique<Plaintext>(capture.sharedSession(), stream, direction);
        });

    module.def("load_plug_ins", &loadPlugIns);
    py::class_<Piece>(module, "Piece")
        .def(py::init(&openPiece))
        .def("scan", [](const Piece& piece) { return toDict(piece.scan()); })
        .def("secrets", [](const Piece& piece) { return py::bytes(piece.scan().secrets.data(), piece.scan().secrets.size()); })
        .def_property_readonly("memory", &Piece::memory)
        .def("packets", &packetsOf)
        .def("rows", &rowsOf);
    module.def("shared_pairs", [](const std::vector<std::string_view>& files) {
        return interruptibly([&](const std::stop_token&) { return sharedPairs({files.begin(), files.end()}); });
    });
    module.def("work_on_packets", &workOnPacketsFrom);
    module.def("numbered", [](std::string_view rows, std::string_view numbers, std::string_view whole) {
        const auto own = itemsOf<std::int64_t>(numbers);
        const auto there = itemsOf<std::int64_t>(whole);
        if (own.size() != there.size()) throw py::value_error("each number has one in the whole");
        return py::bytes(numbered(rows, own, there));
    });
    py::class_<KeyLines>(module, "KeyLines")
        .def("needs", &keyNeeds)
        .def("has", [](const KeyLines& keys, std::string_view client) { return keys.has(itemsOf<KeyLines::Client>(client).at(0)); })
        .def("lines_of",
             [](const KeyLines& keys, std::string_view clients) { return toObject(keys.linesOf(itemsOf<KeyLines::Client>(clients))); })
        .def("text", &keyText);
    module.def("key_lines", [](std::string_view text) { return std::make_unique<KeyLines>(SecretText(text)); });
    module.def("key_log", &keyLog);
    module.attr("plug_ins_from_package") = SEALSCOPE_PLUGINS_FROM_PACKAGE;
}

}  // namespace sealscope::python
