/**
 * @file
 * @brief Which records are wanted, and in which order.
 */
#ifndef ZENDRA_ZDDEVICES_ARRANGE_H
#define ZENDRA_ZDDEVICES_ARRANGE_H

#include <algorithm>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/zddevices/output/text.h"
#include "tools/zddevices/records/field.h"

namespace Zendra::ZDDevices {

/** What the text of a column has to be like. */
struct Filter {
    std::string heading;
    /** As the shell's patterns for file names, for the text as the table shows it. A backslash stands for itself. */
    std::string pattern;
};

/** Whether the text is like the pattern. */
bool Matches(const std::string& text, const std::string& pattern);

/**
 * @brief A text that sorts, byte by byte, where people look for the given one.
 *
 * Numbers are counted (sg2, sg10), and so are the disks' letters (sdz, sdaa). Different texts have different keys.
 */
std::string OrderKey(std::string_view text);

/** Takes out the records that do not match every filter. The others stay in their order. */
template <typename Record>
void Select(std::vector<Record>& records, const std::vector<Filter>& filters)
{
    for (const Filter& filter : filters) {
        const Field<Record>& field = *FieldsOf<Record>({filter.heading}).at(0);
        records.erase(
            std::remove_if(records.begin(), records.end(),
                           [&](const Record& record) { return !Matches(CellOf(record, field), filter.pattern); }),
            records.end());
    }
}

/** Sorts by the key that `keyOf` answers for each value. Values with equal keys stay in their order. */
template <typename Value, typename KeyOf>
void SortByKey(std::vector<Value>& values, KeyOf keyOf)
{
    using Keyed = std::pair<decltype(keyOf(values.front())), Value>;
    std::vector<Keyed> keyed;
    keyed.reserve(values.size());
    for (Value& value : values) {
        auto key = keyOf(value);
        keyed.emplace_back(std::move(key), std::move(value));
    }
    std::stable_sort(keyed.begin(), keyed.end(),
                     [](const Keyed& left, const Keyed& right) { return left.first < right.first; });
    std::transform(keyed.begin(), keyed.end(), values.begin(), [](Keyed& one) { return std::move(one.second); });
}

/**
 * @brief Sorts the records by the column's text, or, for no heading, in their usual order.
 *
 * Those without a text come last; those with equal texts stay in their order.
 */
template <typename Record>
void SortBy(std::vector<Record>& records, const std::string& heading)
{
    const std::string chosen = heading.empty() ? KindOf<Record>().usualOrder : heading;
    if (chosen.empty()) {
        return;
    }
    const Field<Record>& field = *FieldsOf<Record>({chosen}).at(0);
    SortByKey(records, [&field](const Record& record) {
        std::string key = OrderKey(LabelText(TextOf(record, field)));
        return std::make_pair(key.empty(), std::move(key));
    });
}

}  // namespace Zendra::ZDDevices

#endif
