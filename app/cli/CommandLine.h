// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "app/cli/text/Terminal.h"
#include "app/export/GapFilling.h"
#include "host/VELModels/TLSDecryptionProbeRegistry.h"

#include <cstdint>
#include <expected>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sealscope::cli {

struct Command;

/// Every option of every command; `optionSpecs()` describes them.
enum class Option : std::uint8_t {
    keylog,
    privateKey,
    passphraseFile,
    mostKeyExchanges,
    json,
    filter,
    count,
    packet,
    hex,
    stream,
    noInterpreters,
    bodies,
    largestBody,
    mostMessages,
    reach,
    output,
    pcap,
    injectSecrets,
    stripSecrets,
    gaps,
    force,
    interface,
    write,
    follow,
    exchanges,
    plugInPath,
    color,
    quiet,
    verbose,
    memory,
    noSandbox,
    version,
    help
};

/// A set of options, such as those that a command knows.
class OptionSet {
public:
    constexpr OptionSet(std::initializer_list<Option> options)
    {
        for (const Option option : options) bits_ |= bit(option);
    }
    constexpr bool contains(Option option) const { return (bits_ & bit(option)) != 0; }
    constexpr OptionSet operator|(OptionSet other) const
    {
        other.bits_ |= bits_;
        return other;
    }

private:
    static constexpr std::uint64_t bit(Option option) { return std::uint64_t{1} << static_cast<unsigned>(option); }
    std::uint64_t bits_ = 0;
};

/// How an option is written, and what it does.
struct OptionSpec {
    Option option;
    char letter;                ///< 0 for none
    std::string_view name;      ///< without the dashes
    std::string_view argument;  ///< what its argument is called in the help; empty for an option without one
    std::string_view help;
};
std::span<const OptionSpec> optionSpecs();

/// A command line, read.
struct Options {
    const Command* command = nullptr;
    std::vector<std::string> arguments;  ///< files, or the words of `settings`
    std::vector<std::string> keylogs;
    std::vector<std::string> privateKeys;  ///< files
    std::string passphraseFile;
    std::optional<std::int64_t> mostKeyExchanges;
    bool json = false;
    std::string filter;
    std::int64_t count = -1;  ///< negative for no limit
    std::optional<std::int64_t> packet;
    bool hex = false;
    std::vector<std::int64_t> streams;  ///< empty for all
    bool noInterpreters = false;
    bool bodies = false;
    std::optional<std::int64_t> largestBody;  ///< bytes
    std::optional<std::int64_t> mostMessages;
    DecryptionReach reach = DecryptionReach::full;
    std::string output;
    std::string pcap;
    std::string injectSecrets;
    std::string stripSecrets;
    GapFilling gaps = GapFilling::zeros;
    bool force = false;
    std::string interface;
    std::string write;
    bool exchanges = false;  ///< of what `live` follows, in place of packets
    std::vector<std::string> plugInPaths;
    ColorChoice color = ColorChoice::automatic;
    bool quiet = false;
    bool verbose = false;
    std::optional<std::int64_t> memory;  ///< bytes; 0 for no limit
    bool noSandbox = false;
    bool version = false;
    bool help = false;
};

/// What is wrong with a command line.
struct UsageError {
    enum class Problem : std::uint8_t {
        nothingNamed,        ///< neither a command nor a file
        mistypedCommand,     ///< `word` is much like the command `hint`
        unknownOption,       ///< `word`; `hint` is what it was meant to be, perhaps
        foreignOption,       ///< `command` does not know `word`, as those in `hint` do
        missingArgument,     ///< of the option `word`
        emptyArgument,       ///< of the option `word`, which is a `hint`
        refusedArgument,     ///< `argument` of the option `word`: `hint` was expected
        unexpectedArgument,  ///< of the option `word`
        tooFewArguments,     ///< of `command`
        tooManyArguments,    ///< of `command`: `argument` is the first
    };
    Problem problem = Problem::nothingNamed;
    std::string word = {};
    std::string argument = {};
    std::string hint = {};
    const Command* command = nullptr;
    std::string text() const;
};

/// Reads a command line.
std::expected<Options, UsageError> parseCommandLine(int argumentCount, char** arguments);

/// The candidate that a mistyped word was most likely meant to be; empty when none is near.
std::string_view nearestMatch(std::string_view word, std::span<const std::string_view> candidates);

}  // namespace sealscope::cli
