#include "tools/zddevices/options.h"

#include <sstream>

#include "toolTests.h"
#include "tools/zddevices/scan/logControl.h"

namespace Zendra {
namespace ZDDevices {
namespace {

CommandLine Parse(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "zddevices");
    arguments.push_back(nullptr);
    return ParseCommandLine(static_cast<int>(arguments.size()) - 1, arguments.data());
}

Options Good(const std::vector<const char*>& arguments)
{
    const CommandLine line = Parse(arguments);
    if (const auto* options = std::get_if<Options>(&line)) {
        return *options;
    }
    ADD_FAILURE() << "refused: " << arguments.at(0);
    return {};
}

TEST(CommandLine, WithoutArgumentsAsksForTheMergedListAsATable)
{
    const Options options = Good({});
    EXPECT_FALSE(options.type.has_value());
    EXPECT_EQ(options.format, Format::Table);
    EXPECT_FALSE(options.logLevel.has_value());
}

TEST(CommandLine, EveryClassHasItsWord)
{
    EXPECT_EQ(Good({"--type", "tape"}).type, ZDSystemDevice::SYS_DEVICE_TAPE);
    EXPECT_EQ(Good({"--type", "scsi"}).type, ZDSystemDevice::SYS_DEVICE_SCSI);
    EXPECT_EQ(Good({"--type=disk"}).type, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE);
    EXPECT_EQ(Good({"-t", "optical"}).type, ZDSystemDevice::SYS_DEVICE_CDDVD);
}

TEST(CommandLine, FormatAndLogLevelAreTaken)
{
    const Options options = Good({"--format", "json", "--log-level", "4"});
    EXPECT_EQ(options.format, Format::Json);
    EXPECT_EQ(options.logLevel, 4U);
    EXPECT_EQ(Good({"--format", "table", "--log-level=0"}).logLevel, 0U);
    EXPECT_EQ(Good({"firmware", "-f", "prometheus"}).format, Format::Prometheus);
}

TEST(CommandLine, SubcommandsTakeTheOptionsBeforeAndAfterTheirNames)
{
    EXPECT_EQ(Good({}).command, Command::Devices);
    EXPECT_EQ(Good({"optical"}).command, Command::Optical);
    EXPECT_EQ(Good({"firmware"}).command, Command::Firmware);
    EXPECT_EQ(Good({"doctor", "-f", "json"}).command, Command::Doctor);
    EXPECT_EQ(Good({"--format", "json", "firmware"}).format, Format::Json);
    EXPECT_EQ(Good({"optical", "--format", "json", "--log-level", "1"}).format, Format::Json);
    EXPECT_EQ(Good({"--type", "optical"}).command, Command::Devices);
}

TEST(CommandLine, SubcommandsHaveTheSameHelpAndVersion)
{
    const std::string help = std::get<TextWanted>(Parse({"--help"})).text;
    EXPECT_EQ(std::get<TextWanted>(Parse({"optical", "--help"})).text, help);
    EXPECT_EQ(std::get<TextWanted>(Parse({"firmware", "-h"})).text, help);
    EXPECT_EQ(std::get<TextWanted>(Parse({"firmware", "--version"})).text, "zddevices " ZENDRA_VERSION "\n");
}

TEST(CommandLine, WhatMakesNoSenseIsRefusedInOneLine)
{
    const std::vector<std::vector<const char*>> wrong = {{"--type", "floppy"},
                                                         {"--type", "Tape"},
                                                         {"--type", "0"},
                                                         {"--type", ""},
                                                         {"--type"},
                                                         {"--type="},
                                                         {"--type", "tape", "x"},
                                                         {"--type", "tape,disk"},
                                                         {"-t", "tape", "-t", "disk"},
                                                         {"--format", "xml"},
                                                         {"--format"},
                                                         {"--log-level", "5"},
                                                         {"--log-level", "-1"},
                                                         {"--log-level", "1.5"},
                                                         {"--log-level", "debug"},
                                                         {"--log-level", "04"},
                                                         {"--log-level"},
                                                         {"--bogus"},
                                                         {"disks"},
                                                         {"-x"},
                                                         {"--typ", "tape"},
                                                         {"--a\nb"},
                                                         {"--", "x"},
                                                         {"optical", "firmware"},
                                                         {"optical", "optical"},
                                                         {"optical", "--type", "disk"},
                                                         {"--type", "disk", "firmware"},
                                                         {"firmware", "x"},
                                                         {"doctor", "--format", "prometheus"},
                                                         {"doctor", "--columns", "serial"},
                                                         {"doctor", "--no-headings"},
                                                         {"doctor", "--log-level", "0"},
                                                         {"doctor", "--type", "disk"},
                                                         {"--columns", "serial", "--format", "prometheus"},
                                                         {"--columns"},
                                                         {"--columns", ""},
                                                         {"--columns", "serial,"},
                                                         {"--columns", "serial", "--columns", "port"},
                                                         {"--columns", "serial", "--format", "json"},
                                                         {"--no-headings", "--format", "json"},
                                                         {"--no-headings=x"}};
    for (const auto& arguments : wrong) {
        const CommandLine line = Parse(arguments);
        const auto* error = std::get_if<UsageError>(&line);
        ASSERT_NE(error, nullptr) << arguments.at(0);
        EXPECT_FALSE(error->message.empty()) << arguments.at(0);
    }
}

TEST(CommandLine, ColumnsAreTakenInTheirOrderWithoutRegardToCapitalsAndBlanks)
{
    EXPECT_EQ(Good({}).columns, std::vector<std::string>());
    EXPECT_EQ(Good({"--columns", "serial,Port, lun ,SERIAL"}).columns,
              std::vector<std::string>({"SERIAL", "PORT", "LUN", "SERIAL"}));
    EXPECT_EQ(Good({"--columns=writes,dvd-read", "optical"}).columns, std::vector<std::string>({"WRITES", "DVD-READ"}));
    EXPECT_EQ(Good({"firmware", "--columns", "instance-id"}).columns, std::vector<std::string>({"INSTANCE-ID"}));
}

TEST(CommandLine, AnUnknownColumnNamesThoseOfTheSubcommand)
{
    EXPECT_EQ(std::get<UsageError>(Parse({"--columns", "serial,color"})).message,
              "unknown column \"color\" (ADDRESS, TYPE, VENDOR, PRODUCT, FIRMWARE, SERIAL, PORT, BUS, TARGET or LUN)");
    EXPECT_EQ(std::get<UsageError>(Parse({"--columns", "serial", "optical"})).message,
              "unknown column \"serial\" (DRIVE, VENDOR, PRODUCT, READS, WRITES, DVD-READ, MRW-READ, CD-R-WRITE, "
              "CD-RW-WRITE, DVD-R-WRITE, DVD-RAM-WRITE, MRW-WRITE or RAM-WRITE)");
    EXPECT_EQ(std::get<UsageError>(Parse({"firmware", "--columns", "port"}))
                  .message.find("unknown column \"port\" (SOFTWARE-ID, VERSION, SERIAL, DESCRIPTION, "),
              0U);
}

TEST(CommandLine, WhatConcernsTheTableIsRefusedForOtherFormats)
{
    EXPECT_EQ(std::get<UsageError>(Parse({"--format", "json", "--columns", "serial"})).message,
              "--columns makes sense for a table only");
    EXPECT_EQ(std::get<UsageError>(Parse({"--no-headings", "--format", "json"})).message,
              "--no-headings makes sense for a table only");
}

TEST(CommandLine, HeadingsAreShownUnlessTheyAreLeftOut)
{
    EXPECT_EQ(Good({}).headings, Headings::Shown);
    EXPECT_EQ(Good({"optical", "--no-headings"}).headings, Headings::None);
}

TEST(CommandLine, RefusalsNameTheValueAndWhatThereIs)
{
    EXPECT_EQ(std::get<UsageError>(Parse({"--type", "floppy"})).message,
              "unknown type \"floppy\" (tape, scsi, disk or optical)");
    EXPECT_EQ(std::get<UsageError>(Parse({"--type"})).message, "--type takes one value and may be given once");
    EXPECT_EQ(std::get<UsageError>(Parse({"--format", "x"})).message,
              "unknown format \"x\" (json, prometheus or table)");
    EXPECT_EQ(std::get<UsageError>(Parse({"--log-level", "9"})).message, "unknown log level \"9\" (0, 1, 2, 3 or 4)");
    EXPECT_EQ(std::get<UsageError>(Parse({"--timeout", "soon"})).message,
              "--timeout: \"soon\" is no number of seconds from 0.001 to 86400");
}

TEST(CommandLine, VersionIsTheProjectsVersion)
{
    EXPECT_EQ(std::get<TextWanted>(Parse({"--version"})).text, "zddevices " ZENDRA_VERSION "\n");
}

TEST(CommandLine, HelpFitsEightyColumnsAndHoldsExamplesAndExitCodes)
{
    const std::string help = std::get<TextWanted>(Parse({"--help"})).text;
    std::istringstream stream(help);
    for (std::string line; std::getline(stream, line);) {
        EXPECT_LT(line.size(), 80U) << line;
        EXPECT_TRUE(line.empty() || line.back() != ' ') << line;
    }
    for (const char* word : {"Usage:", "Examples:", "Exit codes:", "--type", "--format", "--log-level", "--version",
                             "--help", "optical", "firmware", "  0  ", "  1  ", "  2  ", "  3  ", "U+FFFD"}) {
        EXPECT_NE(help.find(word), std::string::npos) << word;
    }
    EXPECT_EQ(help.back(), '\n');
}

struct CompleteLogger {
    static void SetMinLogLevel(unsigned newLevel) { level = newLevel; }
    static void SetSink(LogSink newSink) { sink = newSink; }
    static inline unsigned level = 0;
    static inline LogSink sink = nullptr;
};

struct LoggerWithoutSink {
    static void SetMinLogLevel(unsigned newLevel) { level = newLevel; }
    static inline unsigned level = 0;
};

struct BareLogger {};

void Ignore(unsigned /*level*/, const char* /*file*/, int /*line*/, const std::string& /*message*/) {}

TEST(LogControl, SetsLevelAndSinkWhereThereAreBoth)
{
    EXPECT_TRUE(DirectLog<CompleteLogger>(3, Ignore));
    EXPECT_EQ(CompleteLogger::level, 3U);
    EXPECT_EQ(CompleteLogger::sink, &Ignore);
}

TEST(LogControl, SetsTheLevelWhereThereIsNoSink)
{
    EXPECT_TRUE(DirectLog<LoggerWithoutSink>(2, Ignore));
    EXPECT_EQ(LoggerWithoutSink::level, 2U);
}

TEST(LogControl, SaysSoWhereThereIsNeither)
{
    EXPECT_FALSE(DirectLog<BareLogger>(2, Ignore));
}

}  // namespace
}  // namespace ZDDevices
}  // namespace Zendra
