// The clock and time-zone conversion, over the C library and the host text layer.

#include <opc/Time.hpp>

#include <vela/i18n/time_zone.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <ctime>
#include <stdexcept>

namespace opc {

namespace pt = boost::posix_time;

pt::ptime getCurrentTime() {
    std::time_t const now = std::time(nullptr);
    std::tm parts{};
    if (gmtime_r(&now, &parts) == nullptr) {
        throw std::runtime_error("could not convert calendar time to UTC time");
    }
    boost::gregorian::date const day(static_cast<unsigned short>(parts.tm_year + 1900),
                                     static_cast<unsigned short>(parts.tm_mon + 1),
                                     static_cast<unsigned short>(parts.tm_mday));
    return pt::ptime(day, pt::time_duration(parts.tm_hour, parts.tm_min, parts.tm_sec));
}

pt::ptime convertToLocalTime(pt::ptime const& utc) {
    return vela::i18n::time_zone::from_utc(utc, vela::i18n::time_zone::timezone(std::string()));
}

pt::ptime convertToUTCTime(pt::ptime const& local) {
    return vela::i18n::time_zone::to_utc(local, vela::i18n::time_zone::timezone(std::string()));
}

} // namespace opc
