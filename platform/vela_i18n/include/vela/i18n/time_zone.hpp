#pragma once

#include <vela/i18n/export.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <memory>
#include <string>

/// Conversion of time stamps between UTC and the wall time of a time zone, with the zone's
/// full history of offsets and daylight-saving rules.
namespace vela::i18n::time_zone {

/// A time zone, copyable and safe to share between threads once built. Zones may be built
/// from several threads at once; detecting the host's zone is serialised inside.
class VELA_I18N_API timezone {
public:
    /// `name` is a zone identifier such as "Europe/Berlin" or "UTC"; an unknown identifier
    /// throws std::invalid_argument. The empty name is the process's local zone, decided at
    /// construction: the TZ environment variable (an identifier, optionally after ":", or a
    /// path ending in ".../zoneinfo/<identifier>"; set but empty means UTC), else the
    /// system's zone, else UTC.
    explicit timezone(std::string const& name);
    ~timezone();
    timezone(timezone const&);
    timezone& operator=(timezone const&);

    /// The zone's identifier.
    std::string id() const;

    struct impl;

private:
    friend VELA_I18N_API boost::posix_time::ptime from_utc(boost::posix_time::ptime const&, timezone const&);
    friend VELA_I18N_API boost::posix_time::ptime to_utc(boost::posix_time::ptime const&, timezone const&);

    std::shared_ptr<impl const> m_impl;
};

/// The wall time in `zone` at the UTC instant `utc`. Special values pass through unchanged.
VELA_I18N_API boost::posix_time::ptime from_utc(boost::posix_time::ptime const& utc, timezone const& zone);

/// The UTC instant at which the wall clock of `zone` shows `local`. Special values pass
/// through unchanged. A wall time that occurs twice (clocks set back) gives the earlier
/// instant; a wall time that never occurs (clocks set forward) is shifted forward by the
/// gap, i.e. read with the offset in force before the change (02:30 on a spring-forward
/// night with a one-hour gap gives the instant shown as 03:30).
VELA_I18N_API boost::posix_time::ptime to_utc(boost::posix_time::ptime const& local, timezone const& zone);

} // namespace vela::i18n::time_zone
