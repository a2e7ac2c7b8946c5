#include "tools/zddevices/records/columns.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/join.hpp>
#include <boost/algorithm/string/predicate.hpp>
#include <boost/algorithm/string/split.hpp>
#include <boost/algorithm/string/trim.hpp>
#include <locale>

namespace Zendra {
namespace ZDDevices {

ColumnChoice ParseColumns(const std::string& list, const std::vector<std::string>& known)
{
    const std::locale& classic = std::locale::classic();
    std::vector<std::string> names;
    boost::algorithm::split(names, list, boost::algorithm::is_any_of(","));
    ColumnChoice choice;
    for (std::string& name : names) {
        boost::algorithm::trim(name, classic);
        const auto found = std::find_if(known.begin(), known.end(), [&](const std::string& heading) {
            return boost::algorithm::iequals(heading, name, classic);
        });
        if (found == known.end()) {
            return {{}, "\"" + name + "\" is none of " + boost::algorithm::join(known, ", ")};
        }
        choice.headings.push_back(*found);
    }
    return choice;
}

}  // namespace ZDDevices
}  // namespace Zendra
