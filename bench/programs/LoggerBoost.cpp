#include <boost/log/trivial.hpp>
#include <boost/log/utility/setup/common_attributes.hpp>
#include <boost/log/utility/setup/console.hpp>
#include <boost/log/utility/setup/file.hpp>
#include <iostream>

#include "Loggers.h"

std::function<void(int)> bench::boostLogStatement(const std::string& file) {
    namespace keywords = boost::log::keywords;
    constexpr const char* format = "%TimeStamp% [%Severity%] %Message%";
    boost::log::add_common_attributes();
    boost::log::register_simple_formatter_factory<boost::log::trivial::severity_level, char>("Severity");
    boost::log::add_console_log(std::cout, keywords::format = format);
    boost::log::add_file_log(keywords::file_name = file, keywords::auto_flush = true,
                             keywords::format = format);
    return [](int number) { BOOST_LOG_TRIVIAL(trace) << "Monitor launcher: screen lock status " << number; };
}
