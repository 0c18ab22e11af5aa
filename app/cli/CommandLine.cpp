// SPDX-License-Identifier: Apache-2.0
#include "app/cli/CommandLine.h"

#include "app/cli/commands/Command.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <getopt.h>
#include <numeric>
#include <unistd.h>
#include <utility>

namespace sealscope::cli {

namespace {

constexpr OptionSpec specs[] = {
    {Option::keylog, 'k', "keylog", "FILE", "take secrets from FILE instead of the key log of the settings; may be given again"},
    {Option::privateKey, 0, "private-key", "FILE", "open RSA key exchanges with a server's key (PEM, PKCS #12); may be given again"},
    {Option::mostKeyExchanges, 0, "most-key-exchanges", "N", "open at most N of them (500 and one for each 16 KiB by default)"},
    {Option::passphraseFile, 0, "passphrase-file", "FILE", "take the key's passphrase from the first line of FILE, and do not ask"},
    {Option::json, 0, "json", "", "print one JSON object a line"},
    {Option::filter, 'f', "filter", "EXPR", "only packets that a capture filter passes, as in \"tcp port 443\""},
    {Option::count, 'n', "count", "N", "stop after N packets"},
    {Option::packet, 0, "packet", "N", "only packet N, counted from 1"},
    {Option::hex, 0, "hex", "", "show the bytes of each field"},
    {Option::stream, 0, "stream", "I", "only stream I, counted from 0; may be given again"},
    {Option::noInterpreters, 0, "no-interpreters", "", "show decrypted bytes as they are, to no further interpreter"},
    {Option::bodies, 0, "bodies", "", "print bodies whole, however long they are"},
    {Option::largestBody, 0, "largest-body", "BYTES", "stop decoding a compressed body at BYTES (1073741824 by default)"},
    {Option::mostMessages, 0, "most-messages", "N", "stop after N messages (200000 and one for each 100 bytes by default)"},
    {Option::reach, 0, "reach", "HOW", "how far decryption goes: full (the default) or strict, the TLS plug-in alone"},
    {Option::output, 'o', "output", "PATH", "write to PATH"},
    {Option::pcap, 0, "pcap", "OUT", "write the plaintext as a capture without TLS"},
    {Option::injectSecrets, 0, "inject-secrets", "OUT", "write the capture again, as pcapng with its secrets inside"},
    {Option::stripSecrets, 0, "strip-secrets", "OUT", "write the capture again, as pcapng without any secrets, for sharing"},
    {Option::gaps, 0, "gaps", "HOW", "in place of lost bytes: zeros (the default), skip or mark"},
    {Option::force, 0, "force", "", "replace files that exist"},
    {Option::interface, 'i', "interface", "NAME", "capture from this network interface"},
    {Option::write, 'w', "write", "FILE", "keep the captured packets in FILE"},
    {Option::follow, 0, "follow", "", "print requests and replies as they become complete, in place of packets"},
    {Option::exchanges, 0, "exchanges", "", "the same as --follow"},
    {Option::plugInPath, 0, "plugin-path", "DIR", "look for plug-ins in DIR first; may be given again"},
    {Option::color, 0, "color", "WHEN", "colours: auto (the default), always or never"},
    {Option::quiet, 'q', "quiet", "", "no progress and no remarks on standard error, only errors"},
    {Option::verbose, 'v', "verbose", "", "say how this run is confined; with --version too"},
    {Option::memory, 0, "memory", "LIMIT", "use at most so much memory, as in 500M or 8G; none for no limit"},
    {Option::noSandbox, 0, "no-sandbox", "", "keep all rights while captures are read, for debugging"},
    {Option::version, 0, "version", "", "print the version"},
    {Option::help, 'h', "help", "", "print this help"},
};

const OptionSpec& specOf(Option option) { return *std::ranges::find(specs, option, &OptionSpec::option); }

// getopt_long hands back the option that it met as a number: `firstOption` and up, so that it is never mistaken for a letter.
constexpr int firstOption = 1'000;

/// How many letters to insert, leave out, change or swap with a neighbour make one word from the other.
std::size_t editDistance(std::string_view a, std::string_view b)
{
    std::vector<std::size_t> beforePrevious(b.size() + 1), previous(b.size() + 1), current(b.size() + 1);
    std::iota(previous.begin(), previous.end(), std::size_t{0});
    for (std::size_t i = 1; i <= a.size(); ++i) {
        current[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            current[j] = std::min({previous[j] + 1, current[j - 1] + 1, previous[j - 1] + (a[i - 1] != b[j - 1])});
            const bool isSwap = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
            if (isSwap) current[j] = std::min(current[j], beforePrevious[j - 2] + 1);
        }
        std::swap(beforePrevious, previous);
        std::swap(previous, current);
    }
    return previous[b.size()];
}

std::string helpHint(const Command* command)
{
    return command ? fmt::format("'sealscope {} --help' lists the options", command->name) : "'sealscope --help' lists the options";
}

bool knows(const Command& command, Option option) { return (command.options | commonOptions).contains(option); }

std::optional<std::int64_t> wholeNumber(std::string_view text, std::int64_t least)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number < least) return std::nullopt;
    return number;
}

/// Bytes from a number with K, M, G or T behind it, powers of 1,024; 0 for "none".
std::optional<std::int64_t> memorySize(std::string_view text)
{
    if (text == "none") return 0;
    constexpr std::string_view units = "KMGT";
    const std::size_t unit = text.empty() ? std::string_view::npos : units.find(text.back());
    if (unit != std::string_view::npos) text.remove_suffix(1);
    const int shift = unit == std::string_view::npos ? 0 : 10 * (static_cast<int>(unit) + 1);
    const auto number = wholeNumber(text, 1);
    if (!number || *number > INT64_MAX >> shift) return std::nullopt;
    return *number << shift;
}

using Problem = UsageError::Problem;

/// Enters an option into the record. Fails where its argument is wrong.
std::expected<void, UsageError> enter(Options& options, const OptionSpec& spec, std::string_view argument)
{
    const auto refuse = [&](const char* expected) {
        return std::unexpected(UsageError{
            .problem = Problem::refusedArgument, .word = std::string(spec.name), .argument = std::string(argument), .hint = expected});
    };
    if (!spec.argument.empty() && argument.empty())
        return std::unexpected(
            UsageError{.problem = Problem::emptyArgument, .word = std::string(spec.name), .hint = std::string(spec.argument)});
    const auto number = [&](std::int64_t least) { return wholeNumber(argument, least); };
    switch (spec.option) {
    case Option::keylog: options.keylogs.emplace_back(argument); break;
    case Option::privateKey: options.privateKeys.emplace_back(argument); break;
    case Option::passphraseFile: options.passphraseFile = argument; break;
    case Option::mostKeyExchanges:
        if (!(options.mostKeyExchanges = number(1))) return refuse("a number of key exchanges, 1 or more");
        break;
    case Option::json: options.json = true; break;
    case Option::filter: options.filter = argument; break;
    case Option::count:
        if (const auto count = number(1))
            options.count = *count;
        else
            return refuse("a whole number, 1 or more");
        break;
    case Option::packet:
        if (!(options.packet = number(1))) return refuse("a packet number, 1 or more");
        break;
    case Option::hex: options.hex = true; break;
    case Option::stream:
        if (const auto stream = number(0))
            options.streams.push_back(*stream);
        else
            return refuse("a stream number, 0 or more");
        break;
    case Option::noInterpreters: options.noInterpreters = true; break;
    case Option::bodies: options.bodies = true; break;
    case Option::largestBody:
        if (const auto bytes = number(1))
            options.largestBody = *bytes;
        else
            return refuse("a number of bytes, 1 or more");
        break;
    case Option::mostMessages:
        if (!(options.mostMessages = number(1))) return refuse("a number of messages, 1 or more");
        break;
    case Option::reach:
        if (argument == "full")
            options.reach = DecryptionReach::full;
        else if (argument == "strict")
            options.reach = DecryptionReach::strict;
        else
            return refuse("full or strict");
        break;
    case Option::output: options.output = argument; break;
    case Option::pcap: options.pcap = argument; break;
    case Option::injectSecrets: options.injectSecrets = argument; break;
    case Option::stripSecrets: options.stripSecrets = argument; break;
    case Option::gaps:
        if (argument == "zeros")
            options.gaps = GapFilling::zeros;
        else if (argument == "skip")
            options.gaps = GapFilling::skip;
        else if (argument == "mark")
            options.gaps = GapFilling::mark;
        else
            return refuse("zeros, skip or mark");
        break;
    case Option::force: options.force = true; break;
    case Option::interface: options.interface = argument; break;
    case Option::write: options.write = argument; break;
    case Option::follow:
    case Option::exchanges: options.exchanges = true; break;
    case Option::plugInPath: options.plugInPaths.emplace_back(argument); break;
    case Option::color:
        if (argument == "auto")
            options.color = ColorChoice::automatic;
        else if (argument == "always")
            options.color = ColorChoice::always;
        else if (argument == "never")
            options.color = ColorChoice::never;
        else
            return refuse("auto, always or never");
        break;
    case Option::quiet: options.quiet = true; break;
    case Option::verbose: options.verbose = true; break;
    case Option::memory:
        if (!(options.memory = memorySize(argument))) return refuse("a size such as 500M or 8G, or none");
        break;
    case Option::noSandbox: options.noSandbox = true; break;
    case Option::version: options.version = true; break;
    case Option::help: options.help = true; break;
    }
    return {};
}

/// The options as getopt wants them.
struct GetoptTables {
    std::string letters = "-:";  // words in between come one by one; a missing argument is told apart from an unknown option
    std::vector<::option> names;

    GetoptTables()
    {
        for (const OptionSpec& spec : specs) {
            const bool takesArgument = !spec.argument.empty();
            if (spec.letter != 0) letters += spec.letter;
            if (spec.letter != 0 && takesArgument) letters += ':';
            names.push_back(
                {spec.name.data(), takesArgument ? required_argument : no_argument, nullptr, firstOption + static_cast<int>(spec.option)});
        }
        names.push_back({});
    }
};

UsageError unknownOption(std::string_view word, const Command* command)
{
    const std::string_view name = word.substr(0, word.find('='));
    std::vector<std::string> spellings;
    for (const OptionSpec& spec : specs)
        if (!command || knows(*command, spec.option)) spellings.push_back(fmt::format("--{}", spec.name));
    const std::vector<std::string_view> candidates(spellings.begin(), spellings.end());
    const std::string_view near = name.starts_with("--") ? nearestMatch(name, candidates) : std::string_view{};
    return {.problem = Problem::unknownOption, .word = std::string(name), .hint = std::string(near), .command = command};
}

/// The command that the first word names, when it is one. A word that is neither command nor file, and is much like a
/// command, is taken for a mistyped one.
std::expected<const Command*, UsageError> commandFor(std::string_view word)
{
    if (const Command* command = commandNamed(word)) return command;
    if (word == "-" || access(std::string(word).c_str(), F_OK) == 0) return nullptr;
    std::vector<std::string_view> names{"help"};
    for (const Command* command : commands()) names.push_back(command->name);
    const std::string_view near = nearestMatch(word, names);
    if (near.empty()) return nullptr;
    return std::unexpected(UsageError{.problem = Problem::mistypedCommand, .word = std::string(word), .hint = std::string(near)});
}

/// Reads a command line word by word. Of several problems the first is told, and none stands in the way of help.
class CommandLineReader {
public:
    std::expected<Options, UsageError> read(int argumentCount, char** arguments)
    {
        const GetoptTables tables;
        opterr = 0;
        optind = 0;
        const auto next = [&] { return getopt_long(argumentCount, arguments, tables.letters.c_str(), tables.names.data(), nullptr); };
        for (int found = next(); found != -1; found = next()) {
            if (found == 1)
                takeWord(optarg);
            else
                takeOption(found, optind > 0 ? arguments[optind - 1] : "");
        }
        // What stands behind "--" is no command, whatever its name.
        options_.arguments.insert(options_.arguments.end(), arguments + optind, arguments + argumentCount);

        if (options_.help || options_.version) return options_;
        if (!problem_) settle();
        if (problem_) return std::unexpected(*problem_);
        return options_;
    }

private:
    void note(UsageError problem)
    {
        if (!problem_) problem_ = std::move(problem);
    }

    /// The first word may name a command; "help" in front of it asks for that command's help.
    void takeWord(std::string_view word)
    {
        const bool mayBeCommand = !options_.command && options_.arguments.empty();
        if (!mayBeCommand) {
            options_.arguments.emplace_back(word);
        } else if (options_.help) {
            options_.command = commandNamed(word);
        } else if (word == "help") {
            options_.help = true;
        } else if (const auto command = commandFor(word); !command) {
            note(command.error());
        } else if (*command) {
            options_.command = *command;
        } else {
            options_.arguments.emplace_back(word);
        }
    }

    void takeOption(int found, std::string_view spelling)
    {
        if (found == ':') return note({.problem = Problem::missingArgument, .word = std::string(spelling), .command = options_.command});
        if (found == '?' && optopt >= firstOption)
            return note(
                {.problem = Problem::unexpectedArgument, .word = std::string(specOf(static_cast<Option>(optopt - firstOption)).name)});
        if (found == '?')
            return note(
                unknownOption(optopt != 0 ? fmt::format("-{}", static_cast<char>(optopt)) : std::string(spelling), options_.command));
        const auto spec = std::ranges::find_if(specs, [&](const OptionSpec& candidate) {
            return found == candidate.letter || found == firstOption + static_cast<int>(candidate.option);
        });
        met_.push_back(spec->option);
        if (const auto entered = enter(options_, *spec, optarg ? optarg : ""); !entered) note(entered.error());
    }

    /// Finds the command, and whether options and arguments are its own.
    void settle()
    {
        if (!options_.command && options_.arguments.empty()) return note({.problem = Problem::nothingNamed});
        if (!options_.command) options_.command = commandNamed("follow");
        const Command& command = *options_.command;
        const auto foreign = std::ranges::find_if(met_, [&](Option option) { return !knows(command, option); });
        if (foreign != met_.end()) {
            std::vector<std::string_view> others;
            for (const Command* other : commands())
                if (knows(*other, *foreign)) others.push_back(other->name);
            return note({.problem = Problem::foreignOption,
                         .word = std::string(specOf(*foreign).name),
                         .hint = fmt::format("{}", fmt::join(others, ", ")),
                         .command = &command});
        }
        const auto count = std::ssize(options_.arguments);
        if (count < command.fewestArguments) return note({.problem = Problem::tooFewArguments, .command = &command});
        if (command.mostArguments >= 0 && count > command.mostArguments)
            note({.problem = Problem::tooManyArguments,
                  .argument = options_.arguments[static_cast<std::size_t>(command.mostArguments)],
                  .command = &command});
    }

    Options options_;
    std::vector<Option> met_;
    std::optional<UsageError> problem_;  ///< the first
};

}  // namespace

std::string UsageError::text() const
{
    switch (problem) {
    case Problem::nothingNamed: return "no capture file and no command is named; 'sealscope --help' shows how";
    case Problem::mistypedCommand: return fmt::format("'{}' is not a command or a file; did you mean '{}'?", word, hint);
    case Problem::unknownOption:
        return hint.empty() ? fmt::format("unknown option '{}'; {}", word, helpHint(command))
                            : fmt::format("unknown option '{}'; did you mean '{}'?", word, hint);
    case Problem::foreignOption: return fmt::format("'{}' does not know --{}; it belongs to {}", command->name, word, hint);
    case Problem::missingArgument: return fmt::format("{} wants an argument; {}", word, helpHint(command));
    case Problem::emptyArgument: return fmt::format("--{}: the {} is empty", word, hint);
    case Problem::refusedArgument: return fmt::format("--{} {}: expected {}", word, argument, hint);
    case Problem::unexpectedArgument: return fmt::format("--{} takes no argument", word);
    case Problem::tooFewArguments:
        return fmt::format("'{0}' wants {1}; 'sealscope {0} --help' shows how", command->name, command->arguments);
    case Problem::tooManyArguments:
        return fmt::format("'{0}' does not know what to do with '{1}'; 'sealscope {0} --help' shows how", command->name, argument);
    }
    std::unreachable();
}

std::span<const OptionSpec> optionSpecs() { return specs; }

std::string_view nearestMatch(std::string_view word, std::span<const std::string_view> candidates)
{
    std::string_view nearest;
    std::size_t least = word.size() / 3 + 1;  // further away it would be a guess
    for (const std::string_view candidate : candidates) {
        // A word that was cut short is near too, when enough of it is there.
        const bool isStart = word.size() >= 3 && candidate.starts_with(word);
        const std::size_t distance = isStart ? 1 : editDistance(word, candidate);
        if (distance < least || (distance == least && nearest.empty() && distance <= 2)) {
            nearest = candidate;
            least = distance;
        }
    }
    return nearest;
}

std::expected<Options, UsageError> parseCommandLine(int argumentCount, char** arguments)
{
    return CommandLineReader().read(argumentCount, arguments);
}

}  // namespace sealscope::cli
