#pragma once

#include <opc/Export.hpp>

#include <boost/date_time/posix_time/ptime.hpp>

#include <string>

/// Time stamps: the clock, UTC <-> local time, and the library's one textual form
/// "%Y-%m-%dT%H:%M:%SZ" (for example 2024-03-09T07:05:01Z). All functions may be called
/// from several threads at once.
namespace opc {

/// The current UTC time, whole seconds. Throws std::runtime_error("could not convert
/// calendar time to UTC time") if the clock cannot be broken down.
OPC_API boost::posix_time::ptime getCurrentTime();

/// The wall time of the process's local zone (TZ, else the system's) at the UTC instant
/// `utc`. Special values pass through.
OPC_API boost::posix_time::ptime convertToLocalTime(boost::posix_time::ptime const& utc);

/// The UTC instant of the local wall time `local`. A repeated wall time (clocks set back)
/// gives the earlier instant; a skipped one (clocks set forward) is moved forward by the gap.
OPC_API boost::posix_time::ptime convertToUTCTime(boost::posix_time::ptime const& local);

/// The time text of `time`, written as it is (no zone conversion; pass UTC) with any
/// fraction of a second dropped; the empty string for a special value.
OPC_API std::u16string convertTimeToString(boost::posix_time::ptime time);

/// The time stamp `text` spells in the time-text form, or not-a-date-time when the text is
/// not readable, has anything left over, or is longer than a bare date (11 units) without
/// "T" at index 10 and a full time of day (at least 19 units).
OPC_API boost::posix_time::ptime convertStringToTime(std::u16string const& text);

} // namespace opc
