// Time-zone conversion over the Unicode library's zone database.

#include <vela/i18n/time_zone.hpp>

#include <unicode/basictz.h>
#include <unicode/timezone.h>
#include <unicode/ucal.h>
#include <unicode/unistr.h>

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <boost/date_time/posix_time/posix_time_types.hpp>

#include <cstdlib>
#include <mutex>
#include <stdexcept>

namespace vela::i18n::time_zone {

// Every zone the library builds (database, fixed-offset and host zones) keeps its transition
// history, which the local-to-UTC direction needs.
struct timezone::impl {
    std::unique_ptr<icu::BasicTimeZone> zone;
};

namespace {

/// Builds the Unicode library's shared zone state (the GMT and unknown zones, the open zone
/// database) once per process, under the guard of a function-local static, before any zone
/// is made. Left alone, the library builds it lazily behind its own once-flags, whose fast
/// path a race detector cannot see; built here, every later use is ordered after it. A
/// failure here is not reported: the lookup that follows meets it again and reports it.
void prepare_zones() {
    static bool const prepared = [] {
        icu::TimeZone::getGMT();
        icu::TimeZone::getUnknown();
        delete icu::TimeZone::createTimeZone(icu::UnicodeString(u"Etc/UTC"));
        return true;
    }();
    (void)prepared;
}

/// The library's "unknown" zone, by name: host detection may hand it back as a zone of another
/// class than the library's own, which then compares unequal to it.
bool is_unknown(icu::TimeZone const& zone) {
    icu::UnicodeString id, unknown;
    return zone.getID(id) == icu::TimeZone::getUnknown().getID(unknown);
}

std::unique_ptr<icu::TimeZone> create_known(std::string const& id) {
    std::unique_ptr<icu::TimeZone> zone(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(id)));
    if (!zone || is_unknown(*zone)) {
        return nullptr;
    }
    return zone;
}

std::unique_ptr<icu::TimeZone> create_utc() {
    return std::unique_ptr<icu::TimeZone>(icu::TimeZone::getGMT()->clone());
}

/// The process's zone, read now rather than cached, so a change of TZ takes effect on the
/// next construction.
std::unique_ptr<icu::TimeZone> create_local() {
    if (char const* tz = std::getenv("TZ")) {
        std::string name(tz);
        if (name.empty()) {
            return create_utc();
        }
        if (name.front() == ':') {
            name.erase(0, 1);
        }
        auto const at = name.rfind("zoneinfo/");
        if (at != std::string::npos) {
            name.erase(0, at + 9);
        }
        if (auto zone = create_known(name)) {
            return zone;
        }
        // Not an identifier (for example a POSIX rule string): let the library's host
        // detection interpret it.
    }
    // Host detection calls tzset and fills a process-wide name buffer; neither is safe to
    // run in two threads at once, and it runs on every construction (TZ may have changed).
    static std::mutex detecting;
    std::unique_lock<std::mutex> lock(detecting);
    std::unique_ptr<icu::TimeZone> host(icu::TimeZone::detectHostTimeZone());
    lock.unlock();
    if (!host || is_unknown(*host)) {
        return create_utc();
    }
    return host;
}

boost::posix_time::ptime const& epoch() {
    static boost::posix_time::ptime const value(boost::gregorian::date(1970, 1, 1));
    return value;
}

UDate to_udate(boost::posix_time::ptime const& time) {
    return static_cast<UDate>((time - epoch()).total_milliseconds());
}

} // namespace

timezone::timezone(std::string const& name) {
    prepare_zones();
    std::unique_ptr<icu::TimeZone> zone = name.empty() ? create_local() : create_known(name);
    auto* const basic = dynamic_cast<icu::BasicTimeZone*>(zone.get());
    if (!basic) {
        throw std::invalid_argument("Unknown time zone: \"" + name + "\"");
    }
    auto data = std::make_shared<impl>(); // before the release: a failed allocation leaks nothing
    data->zone.reset(basic);
    zone.release();
    m_impl = std::move(data);
}

timezone::~timezone() = default;
timezone::timezone(timezone const&) = default;
timezone& timezone::operator=(timezone const&) = default;

std::string timezone::id() const {
    icu::UnicodeString id;
    m_impl->zone->getID(id);
    std::string out;
    id.toUTF8String(out);
    return out;
}

boost::posix_time::ptime from_utc(boost::posix_time::ptime const& utc, timezone const& zone) {
    if (utc.is_special()) {
        return utc;
    }
    int32_t raw = 0;
    int32_t dst = 0;
    UErrorCode status = U_ZERO_ERROR;
    zone.m_impl->zone->getOffset(to_udate(utc), false, raw, dst, status);
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("time-zone offset unavailable: ") + u_errorName(status));
    }
    return utc + boost::posix_time::milliseconds(raw + dst);
}

boost::posix_time::ptime to_utc(boost::posix_time::ptime const& local, timezone const& zone) {
    if (local.is_special()) {
        return local;
    }
    int32_t raw = 0;
    int32_t dst = 0;
    UErrorCode status = U_ZERO_ERROR;
    // "Former" for both cases: the offset in force before the change. For a repeated wall time
    // that is the earlier instant; for a skipped one it moves the time forward by the gap.
    zone.m_impl->zone->getOffsetFromLocal(to_udate(local), UCAL_TZ_LOCAL_FORMER, UCAL_TZ_LOCAL_FORMER, raw, dst,
                                          status);
    if (U_FAILURE(status)) {
        throw std::runtime_error(std::string("time-zone offset unavailable: ") + u_errorName(status));
    }
    return local - boost::posix_time::milliseconds(raw + dst);
}

} // namespace vela::i18n::time_zone
