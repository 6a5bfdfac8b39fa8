// Clock, time-zone conversion and the time text, over Boost.DateTime and the host text layer.

#include <opc/Time.hpp>

#include <vela/i18n/convert.hpp>
#include <vela/i18n/facet.hpp>
#include <vela/i18n/initialize.hpp>
#include <vela/i18n/time_zone.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <ctime>
#include <iterator>
#include <locale>
#include <sstream>
#include <stdexcept>

namespace opc {
namespace {

namespace pt = boost::posix_time;

constexpr wchar_t const* kTimeFormat = L"%Y-%m-%dT%H:%M:%SZ";

// The two locales are built once (a guarded function-local static) and only read after.
std::locale const& writingLocale() {
    static std::locale const locale(vela::i18n::facet::get_global_std_locale(), new pt::wtime_facet(kTimeFormat));
    return locale;
}

std::locale const& readingLocale() {
    static std::locale const locale(vela::i18n::facet::get_global_std_locale(),
                                    new pt::wtime_input_facet(kTimeFormat));
    return locale;
}

// One stream per thread, imbued once: imbuing and constructing a stream cost more than the
// formatting itself. The writer also keeps its facet, so a call skips the facet look-up.
struct Writer {
    std::wostringstream stream;
    pt::wtime_facet const* facet;

    Writer() : facet(&std::use_facet<pt::wtime_facet>(writingLocale())) { stream.imbue(writingLocale()); }
};

Writer& writer() {
    thread_local Writer w;
    return w;
}

std::wistringstream& reader() {
    thread_local std::wistringstream stream = [] {
        std::wistringstream s;
        s.imbue(readingLocale());
        return s;
    }();
    return stream;
}

} // namespace

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

std::u16string convertTimeToString(pt::ptime time) {
    vela::i18n::initialize();
    writingLocale();
    if (time.is_special()) {
        return std::u16string();
    }
    Writer& w = writer();
    w.stream.str(std::wstring());
    w.stream.clear();
    w.facet->put(std::ostreambuf_iterator<wchar_t>(w.stream), w.stream, w.stream.fill(), time);
    return vela::i18n::to_ustring(w.stream.str());
}

pt::ptime convertStringToTime(std::u16string const& text) {
    vela::i18n::initialize();
    readingLocale();
    std::wistringstream& stream = reader();
    stream.str(vela::i18n::to_wstring(text));
    stream.clear();

    pt::ptime time(boost::date_time::not_a_date_time);
    stream >> time;
    if (stream.fail() || stream.bad()) {
        return pt::ptime(boost::date_time::not_a_date_time);
    }
    if (stream.peek() != std::wistringstream::traits_type::eof()) {
        return pt::ptime(boost::date_time::not_a_date_time);
    }
    // Longer than a bare date: the T must sit at its usual place, with a full time of day.
    bool const shapeOk = text.size() <= 11 || (text[10] == u'T' && text.size() >= 19);
    return shapeOk ? time : pt::ptime(boost::date_time::not_a_date_time);
}

} // namespace opc
