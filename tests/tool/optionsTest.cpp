#include "tools/zddevices/options.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#include <sstream>

#include "toolTests.h"
#include "tools/zddevices/scan/logging.h"

namespace Zendra::ZDDevices {
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

/** Why these words, separated by blanks, are refused. */
std::string RefusalOf(const std::string& text)
{
    std::vector<std::string> words;
    boost::algorithm::split(words, text, boost::algorithm::is_any_of(" "));
    std::vector<const char*> arguments;
    arguments.reserve(words.size());
    for (const std::string& word : words) {
        arguments.push_back(word.c_str());
    }
    const CommandLine line = Parse(arguments);
    const auto* error = std::get_if<UsageError>(&line);
    EXPECT_NE(error, nullptr) << text;
    return error != nullptr ? error->message : "";
}

TEST(CommandLine, WithoutArgumentsAsksForTheMergedListAsATable)
{
    const Options options = Good({});
    EXPECT_FALSE(options.type.has_value());
    EXPECT_EQ(options.format, Format::Table);
    EXPECT_EQ(options.headings, Headings::Shown);
    EXPECT_FALSE(options.logLevel.has_value());
}

TEST(CommandLine, EveryClassHasItsWord)
{
    EXPECT_EQ(Good({"--type", "tape"}).type, ZDSystemDevice::SYS_DEVICE_TAPE);
    EXPECT_EQ(Good({"--type", "scsi"}).type, ZDSystemDevice::SYS_DEVICE_SCSI);
    EXPECT_EQ(Good({"--type=disk"}).type, ZDSystemDevice::SYS_DEVICE_PHYSICAL_DRIVE);
    EXPECT_EQ(Good({"-t", "optical"}).type, ZDSystemDevice::SYS_DEVICE_CDDVD);
}

TEST(CommandLine, FormatLogLevelAndHeadingsAreTaken)
{
    const Options options = Good({"--format", "json", "--log-level", "4"});
    EXPECT_EQ(options.format, Format::Json);
    EXPECT_EQ(options.logLevel, 4U);
    EXPECT_EQ(Good({"--format", "table", "--log-level=0"}).logLevel, 0U);
    EXPECT_EQ(Good({"firmware", "-f", "prometheus"}).format, Format::Prometheus);
    EXPECT_EQ(Good({"optical", "--no-headings"}).headings, Headings::None);
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

TEST(CommandLine, ColumnsAreTakenInTheirOrderWithoutRegardToCapitalsAndBlanks)
{
    EXPECT_EQ(Good({}).columns, std::vector<std::string>());
    EXPECT_EQ(Good({"--columns", "serial,Port, lun ,SERIAL"}).columns,
              std::vector<std::string>({"SERIAL", "PORT", "LUN", "SERIAL"}));
    EXPECT_EQ(Good({"--columns=writes,dvd-read", "optical"}).columns, std::vector<std::string>({"WRITES", "DVD-READ"}));
    EXPECT_EQ(Good({"firmware", "--columns", "instance-id"}).columns, std::vector<std::string>({"INSTANCE-ID"}));
}

TEST(CommandLine, FiltersAndOrderNameColumnsOfTheSubcommand)
{
    const Options options = Good({"--filter", "Vendor=HAL*", "optical", "--filter= drive =a=b, c", "--sort", "reads",
                                  "-f", "csv", "--columns", "drive", "--no-headings"});
    ASSERT_EQ(options.filters.size(), 2U);
    EXPECT_EQ(options.filters[0].heading, "VENDOR");
    EXPECT_EQ(options.filters[0].pattern, "HAL*");
    EXPECT_EQ(options.filters[1].heading, "DRIVE");
    EXPECT_EQ(options.filters[1].pattern, "a=b, c");
    EXPECT_EQ(options.sortedBy, "READS");
    EXPECT_EQ(options.format, Format::Csv);
    EXPECT_EQ(Good({"--filter", "serial="}).filters.at(0).pattern, "");
    EXPECT_TRUE(Good({}).filters.empty());
    EXPECT_EQ(Good({}).sortedBy, "");
}

TEST(CommandLine, JobsAreANumberFrom1To1000)
{
    EXPECT_EQ(Good({}).jobs, 16U);
    EXPECT_EQ(Good({"--jobs", "1"}).jobs, 1U);
    EXPECT_EQ(Good({"--jobs=1000"}).jobs, 1000U);
    for (const char* text : {"0", "1001", "4x", "+4"}) {
        EXPECT_NE(RefusalOf("--jobs=" + std::string(text)).find("is no number from 1 to 1000"), std::string::npos)
            << text;
    }
    EXPECT_EQ(RefusalOf("--as-library --jobs 4"), "--jobs makes no sense with --as-library");
}

TEST(CommandLine, AnUnknownColumnNamesThoseOfTheSubcommand)
{
    EXPECT_EQ(
        RefusalOf("--columns serial,color"),
        "unknown column \"color\" (DEVICE, TYPE, SIZE, VENDOR, MODEL, REVISION, SERIAL, ADDRESS, TYPE-TEXT, PRODUCT, "
        "FIRMWARE, WWN, SLOT, FILES, TRANSPORT, STATE, DRIVER, PATHS, PORT, BUS, TARGET or LUN)");
    EXPECT_EQ(RefusalOf("--as-library --columns serial,device"),
              "unknown column \"device\" (ADDRESS, TYPE, VENDOR, PRODUCT, FIRMWARE, SERIAL, PORT, BUS, TARGET or LUN)");
    EXPECT_EQ(RefusalOf("--columns serial optical"),
              "unknown column \"serial\" (DRIVE, VENDOR, PRODUCT, READS, WRITES, DVD-READ, MRW-READ, CD-R-WRITE, "
              "CD-RW-WRITE, DVD-R-WRITE, DVD-RAM-WRITE, MRW-WRITE or RAM-WRITE)");
    EXPECT_EQ(
        RefusalOf("firmware --columns port")
            .find("unknown column \"port\" (DEVICE, MODEL, REVISION, SERIAL, SOFTWARE-ID, VERSION, DESCRIPTION, "),
        0U);
}

TEST(CommandLine, WhatIsNotKnownOrGivenTwiceIsRefused)
{
    for (const char* text : {"--type Tape",
                             "--type 0",
                             "--type ",
                             "--type=",
                             "--type tape x",
                             "--type tape,disk",
                             "-t tape -t disk",
                             "--format",
                             "--log-level -1",
                             "--log-level 1.5",
                             "--log-level debug",
                             "--log-level 04",
                             "--log-level",
                             "--bogus",
                             "disks",
                             "-x",
                             "--typ tape",
                             "--a\nb",
                             "-- x",
                             "optical firmware",
                             "optical optical",
                             "firmware x",
                             "--columns",
                             "--columns ",
                             "--columns serial,",
                             "--columns serial --columns port",
                             "--filter",
                             "--filter serial",
                             "--filter =x",
                             "--filter color=x",
                             "--filter serial=x port=1",
                             "--sort",
                             "--sort ",
                             "--sort color",
                             "--sort serial,port",
                             "--sort serial --sort port",
                             "--no-headings=x"}) {
        EXPECT_FALSE(RefusalOf(text).empty()) << text;
    }
}

TEST(CommandLine, RefusalsNameTheValueAndWhatThereIs)
{
    EXPECT_EQ(RefusalOf("--type floppy"), "unknown type \"floppy\" (tape, scsi, disk or optical)");
    EXPECT_EQ(RefusalOf("--type"), "--type takes one value and may be given once");
    EXPECT_EQ(RefusalOf("--format x"), "unknown format \"x\" (csv, json, prometheus or table)");
    EXPECT_EQ(RefusalOf("--log-level 9"), "unknown log level \"9\" (0, 1, 2, 3 or 4)");
    EXPECT_EQ(RefusalOf("--timeout soon"), "--timeout: \"soon\" is no number of seconds from 0.001 to 86400");
}

TEST(CommandLine, OptionsThatMakeNoSenseTogetherAreRefused)
{
    EXPECT_EQ(RefusalOf("optical --type disk"), "--type makes no sense with a subcommand");
    EXPECT_EQ(RefusalOf("--type disk firmware"), "--type makes no sense with a subcommand");
    EXPECT_EQ(RefusalOf("doctor --type disk"), "--type makes no sense with a subcommand");
    EXPECT_EQ(RefusalOf("doctor --columns serial"), "--columns makes no sense with doctor");
    EXPECT_EQ(RefusalOf("doctor --no-headings"), "--no-headings makes no sense with doctor");
    EXPECT_EQ(RefusalOf("doctor --log-level 0"), "--log-level makes no sense with doctor");
    EXPECT_EQ(RefusalOf("doctor --format prometheus"), "--format prometheus makes no sense with doctor");
    EXPECT_EQ(RefusalOf("doctor --sort serial"), "--sort makes no sense with doctor");
    EXPECT_EQ(RefusalOf("doctor --filter serial=x"), "--filter makes no sense with doctor");
    EXPECT_EQ(RefusalOf("doctor --format csv"), "--format csv makes no sense with doctor");
    EXPECT_EQ(RefusalOf("--columns serial --format json"), "--columns makes sense for a table or csv only");
    EXPECT_EQ(RefusalOf("--columns serial --format prometheus"), "--columns makes sense for a table or csv only");
    EXPECT_EQ(RefusalOf("--no-headings --format json"), "--no-headings makes sense for a table or csv only");
    EXPECT_EQ(RefusalOf("--filter serial=x --format prometheus"), "--filter makes no sense with --format prometheus");
    EXPECT_EQ(RefusalOf("--sort serial --format prometheus"), "--sort makes no sense with --format prometheus");
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
}  // namespace Zendra::ZDDevices
