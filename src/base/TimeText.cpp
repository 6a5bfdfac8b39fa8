// The time text "%Y-%m-%dT%H:%M:%SZ", written and read digit by digit.
//
// The reader accepts exactly the texts that Boost.DateTime's wide time input facet accepts
// with that format, and yields the same values, without streams, facets or allocation:
// - leading white space is skipped (the stream's own skip, by the process's standard locale);
// - each format letter other than a field (- T : Z) skips one character of any kind;
// - year: exactly four digits, 1400 to 9999; month: one or two digits, 1 to 12, after
//   optional white space; day: exactly two digits, 1 to 31 and valid for the month, after
//   optional white space; hours, minutes, seconds: exactly two digits each, 00 to 99, added
//   to the day as a duration (so 24:00:00 is the next midnight);
// - a field that cannot be read may instead hold one of the special-value names (any case):
//   the read then yields that value; the year only when none of its digits were read;
// - the text may end after any field or separator; the fields not reached keep 1400, 1, 1
//   and 0;
// - the whole text must be consumed, and a text longer than a bare date (11 units) needs
//   "T" at index 10 and at least 19 units.

#include <opc/Time.hpp>

#include <vela/i18n/facet.hpp>
#include <vela/i18n/initialize.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <unicode/utf16.h>

#include <cctype>
#include <cstddef>
#include <iterator>
#include <locale>

namespace opc {
namespace {

namespace pt = boost::posix_time;
namespace gr = boost::gregorian;

constexpr std::size_t kTextLength = 20; // 2024-03-09T07:05:01Z

void putDigits(char16_t* at, unsigned value, int count) {
    for (int i = count - 1; i >= 0; --i, value /= 10) {
        at[i] = static_cast<char16_t>(u'0' + value % 10);
    }
}

// The classification that decides leading white space: the process's standard locale as it
// was at first use, captured once (a guarded function-local static) and only read after.
std::ctype<wchar_t> const& standardCtype() {
    static std::locale const locale = vela::i18n::facet::get_global_std_locale();
    static std::ctype<wchar_t> const& ctype = std::use_facet<std::ctype<wchar_t>>(locale);
    return ctype;
}

// The C library's narrow classification, which the fields use inside the text. It is defined
// only up to U+00FF; any character above is neither white space nor a digit and has no case.
bool narrowSpace(char32_t c) { return c < 0x100 && std::isspace(static_cast<int>(c)) != 0; }
bool isDigit(char32_t c) { return c >= U'0' && c <= U'9'; }
char32_t narrowLower(char32_t c) { return c < 0x100 ? static_cast<char32_t>(std::tolower(static_cast<int>(c))) : c; }

// Walks UTF-16 text by characters: a surrogate pair is one character, a lone surrogate reads
// as U+FFFD (as the conversion to wide text did).
class Cursor {
public:
    explicit Cursor(std::u16string const& text) : m_at(text.data()), m_end(text.data() + text.size()) {}

    bool atEnd() const { return m_at == m_end; }

    char32_t peek() const {
        char16_t const unit = *m_at;
        if (!U16_IS_SURROGATE(unit)) {
            return unit;
        }
        return pairAhead() ? U16_GET_SUPPLEMENTARY(unit, m_at[1]) : 0xFFFD;
    }

    void next() { m_at += pairAhead() ? 2 : 1; }

    // The next character when it is one that `accept` takes; false at the end.
    template <typename Accept>
    bool nextIs(Accept accept) const {
        return !atEnd() && accept(peek());
    }

private:
    // The text is a std::u16string's: at its end m_at[1] is the terminating NUL, never a trail.
    bool pairAhead() const { return U16_IS_LEAD(*m_at) && U16_IS_TRAIL(m_at[1]); }

    char16_t const* m_at;
    char16_t const* m_end;
};

// Up to `width` digits; `count` tells how many were read.
unsigned readDigits(Cursor& in, int width, int& count) {
    unsigned value = 0;
    for (count = 0; count < width && in.nextIs(isDigit); ++count) {
        value = value * 10 + (in.peek() - U'0');
        in.next();
    }
    return value;
}

// A fixed-width field: exactly `width` digits, else -1.
int readFixed(Cursor& in, int width) {
    int count = 0;
    unsigned const value = readDigits(in, width, count);
    return count == width ? static_cast<int>(value) : -1;
}

void skipNarrowSpace(Cursor& in) {
    while (in.nextIs(narrowSpace)) {
        in.next();
    }
}

// A special-value name at the cursor, in any case: consumes it and stores its value in
// `time`. False when none is there (the read then fails, so what was consumed is moot).
bool readSpecial(Cursor& in, pt::ptime& time) {
    static constexpr char const* kNames[] = {"not-a-date-time", "-infinity", "+infinity", "minimum-date-time",
                                             "maximum-date-time"};
    static constexpr boost::date_time::special_values kValues[] = {
        boost::date_time::not_a_date_time, boost::date_time::neg_infin, boost::date_time::pos_infin,
        boost::date_time::min_date_time, boost::date_time::max_date_time};
    for (std::size_t i = 0; i < std::size(kNames); ++i) {
        Cursor probe = in;
        char const* name = kNames[i];
        while (*name != '\0' && !probe.atEnd() && narrowLower(probe.peek()) == static_cast<char32_t>(*name)) {
            probe.next();
            ++name;
        }
        if (*name == '\0') {
            in = probe;
            time = pt::ptime(kValues[i]);
            return true;
        }
    }
    return false;
}

// The fields of the text; those not reached keep these values.
struct Fields {
    int year = 1400;
    int month = 1;
    int day = 1;
    int clock[3] = {0, 0, 0}; // hours, minutes, seconds
};

// How one step of the format went. A field that is not readable may hold a special-value
// name instead; the year only when none of its digits were read.
enum class Step { read,
                  unreadable,
                  unreadableNoSpecial };

// Step `index` of "%Y-%m-%dT%H:%M:%SZ" (fields at even indices) at the cursor, not at its end.
Step readStep(Cursor& in, int index, Fields& fields) {
    switch (index) {
    case 0: {
        int count = 0;
        unsigned const value = readDigits(in, 4, count);
        if (count == 4 && value >= 1400 && value <= 9999) {
            fields.year = static_cast<int>(value);
            return Step::read;
        }
        return count == 0 ? Step::unreadable : Step::unreadableNoSpecial;
    }
    case 2: {
        skipNarrowSpace(in);
        int count = 0;
        unsigned const value = readDigits(in, 2, count);
        if (count > 0 && value >= 1 && value <= 12) {
            fields.month = static_cast<int>(value);
            return Step::read;
        }
        return Step::unreadable;
    }
    case 4: { // its fit to the month is checked once all is read
        skipNarrowSpace(in);
        int const value = readFixed(in, 2);
        if (value >= 1 && value <= 31) {
            fields.day = value;
            return Step::read;
        }
        return Step::unreadable;
    }
    case 6:
    case 8:
    case 10: {
        int const value = readFixed(in, 2);
        if (value >= 0) {
            fields.clock[(index - 6) / 2] = value;
            return Step::read;
        }
        return Step::unreadable;
    }
    default: // a separator or the final Z: any one character
        in.next();
        return Step::read;
    }
}

// Reads the time at the cursor into `time`; false when the text is not readable.
bool readTime(Cursor& in, pt::ptime& time) {
    // The stream skipped white space by the standard locale, the facet then by the C library.
    std::ctype<wchar_t> const& ctype = standardCtype();
    while (!in.atEnd() && !isDigit(in.peek()) && ctype.is(std::ctype_base::space, static_cast<wchar_t>(in.peek()))) {
        in.next();
    }
    if (in.atEnd()) {
        return false;
    }
    skipNarrowSpace(in);

    Fields fields;
    constexpr int kSteps = 12; // Y - m - d T H : M : S Z
    for (int index = 0; index < kSteps && !in.atEnd(); ++index) {
        Step const step = readStep(in, index, fields);
        if (step != Step::read) {
            return step == Step::unreadable && readSpecial(in, time);
        }
    }
    if (fields.day > gr::gregorian_calendar::end_of_month_day(static_cast<unsigned short>(fields.year),
                                                              static_cast<unsigned short>(fields.month))) {
        return false;
    }
    time = pt::ptime(gr::date(static_cast<unsigned short>(fields.year), static_cast<unsigned short>(fields.month),
                              static_cast<unsigned short>(fields.day)),
                     pt::time_duration(fields.clock[0], fields.clock[1], fields.clock[2]));
    return true;
}

} // namespace

std::u16string convertTimeToString(pt::ptime time) {
    vela::i18n::initialize();
    if (time.is_special()) {
        return std::u16string();
    }
    // year_month_day() refuses a date beyond the calendar's range, as the facet did.
    gr::date::ymd_type const ymd = time.date().year_month_day();
    pt::time_duration const clock = time.time_of_day();
    char16_t text[kTextLength] = {u'0', u'0', u'0', u'0', u'-', u'0', u'0', u'-', u'0', u'0',
                                  u'T', u'0', u'0', u':', u'0', u'0', u':', u'0', u'0', u'Z'};
    putDigits(text, ymd.year, 4);
    putDigits(text + 5, ymd.month, 2);
    putDigits(text + 8, ymd.day, 2);
    putDigits(text + 11, static_cast<unsigned>(clock.hours()), 2);
    putDigits(text + 14, static_cast<unsigned>(clock.minutes()), 2);
    putDigits(text + 17, static_cast<unsigned>(clock.seconds()), 2);
    return std::u16string(text, kTextLength);
}

pt::ptime convertStringToTime(std::u16string const& text) {
    vela::i18n::initialize();
    pt::ptime const none(boost::date_time::not_a_date_time);
    // Longer than a bare date: the T must sit at its usual place, with a full time of day.
    if (text.size() > 11 && (text[10] != u'T' || text.size() < 19)) {
        return none;
    }
    Cursor in(text);
    pt::ptime time = none;
    if (!readTime(in, time) || !in.atEnd()) {
        return none;
    }
    return time;
}

} // namespace opc
