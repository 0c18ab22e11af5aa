// SPDX-License-Identifier: Apache-2.0
#include "app/cli/text/Help.h"

#include "app/cli/commands/Command.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>
#include <vector>

namespace sealscope::cli {

namespace {

constexpr std::string_view programExamples =
    "sealscope capture.pcapng|what happened, stream by stream\n"
    "sealscope packets capture.pcapng|one row per packet\n"
    "sealscope streams -k keys.txt capture.pcapng|which connections decrypt, and why others do not\n"
    "sealscope decrypt -k keys.txt --pcap plain.pcap capture.pcapng|the plaintext, for any other tool\n"
    "sealscope follow --json capture.pcapng \\| jq -r '.messages[].summary'|for scripts\n"
    "sudo sealscope live -i eth0|packets as they arrive\n";

using Rows = std::vector<std::pair<std::string, std::string>>;

/// "left|right" lines; "\|" is a bar of the text itself.
Rows splitExamples(std::string_view lines)
{
    Rows rows;
    std::string left, current;
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (lines[i] == '\\' && i + 1 < lines.size() && lines[i + 1] == '|')
            current += lines[++i];
        else if (lines[i] == '|')
            left = std::exchange(current, {});
        else if (lines[i] == '\n')
            rows.emplace_back(std::exchange(left, {}), std::exchange(current, {}));
        else
            current += lines[i];
    }
    return rows;
}

/// Two columns; a left text that is wider than most gets a line to itself.
void appendRows(std::string& text, const Rows& rows)
{
    constexpr std::size_t widest = 46;
    std::size_t width = 0;
    for (const auto& [left, right] : rows)
        if (left.size() <= widest) width = std::max(width, left.size());
    if (width == 0) width = widest / 2;
    for (const auto& [left, right] : rows) {
        if (left.size() > width)
            text += fmt::format("  {}\n  {:{}}  {}\n", left, "", width, right);
        else
            text += fmt::format("  {:{}}  {}\n", left, width, right);
    }
}

Rows optionRows(OptionSet options, const Command* command)
{
    Rows rows;
    for (OptionSpec spec : optionSpecs()) {
        if (!options.contains(spec.option)) continue;
        if (command && spec.option == Option::output) spec.argument = command->outputArgument, spec.help = command->outputHelp;
        if (command && spec.option == Option::count && command->countsRows) spec.help = "stop after N rows";
        const std::string letter = spec.letter ? fmt::format("-{}, ", spec.letter) : "    ";
        rows.emplace_back(fmt::format("{}--{}{}{}", letter, spec.name, spec.argument.empty() ? "" : " ", spec.argument), spec.help);
    }
    return rows;
}

}  // namespace

std::string helpText(const Command* command)
{
    std::string text = "Examples:\n";
    if (command) {
        appendRows(text, splitExamples(command->examples));
        text += fmt::format("\nUsage: sealscope {} [OPTION…] {}\n\n{}\n", command->name, command->arguments, command->description);
        if (command->arguments.starts_with("FILE")) text += "\nFILE may be \"-\" for standard input. Several files count as one capture.\n";
        text += "\nOptions:\n";
        appendRows(text, optionRows(command->options | commonOptions, command));
        return text;
    }
    appendRows(text, splitExamples(programExamples));
    text += "\nUsage: sealscope [COMMAND] [OPTION…] FILE…\n\nCommands; \"follow\" where none is named:\n";
    Rows rows;
    for (const Command* each : commands()) rows.emplace_back(each->name, each->summary);
    appendRows(text, rows);
    text += "\nOptions of every command:\n";
    appendRows(text, optionRows(commonOptions, nullptr));
    text += "\n'sealscope COMMAND --help' tells more. FILE may be \"-\" for standard input.\n";
    return text;
}

}  // namespace sealscope::cli
