// UTF-16 <-> UTF-8 conversion of the library against the Unicode library's own string
// functions writing into a buffer allocated once (the raw conversion cost).

#include <opc/Text.hpp>

#include <benchmark/benchmark.h>
#include <unicode/ustring.h>

#include <string>
#include <vector>

namespace {

constexpr std::size_t kLarge = 1 << 20; // UTF-16 units (1 MiB of ASCII as UTF-8)
constexpr std::size_t kSmall = 64;

enum Kind { Ascii = 0,
            Mixed = 1 };

std::u16string makeText(std::size_t units, int kind) {
    // Latin with accents, Greek, Cyrillic, CJK, Arabic and an emoji (surrogate pair).
    static std::u16string const mixed = u"Za\u00EFve \u03B1\u03B2\u03B3 \u0436\u0443\u043A \u6F22\u5B57 "
                                        u"\u0639\u0631\u0628\u064A \U0001F600 ";
    static std::u16string const ascii = u"The quick brown fox jumps over the lazy dog. 0123456789 ";
    std::u16string const& pattern = kind == Mixed ? mixed : ascii;
    std::u16string out;
    while (out.size() < units) out += pattern;
    out.resize(units);
    if (out.size() && out.back() >= 0xD800 && out.back() < 0xDC00) out.back() = u'.';
    return out;
}

std::string label(int kind) { return kind == Mixed ? "mixed" : "ascii"; }

void ToUTF8_Library(benchmark::State& state) {
    std::u16string const text = makeText(static_cast<std::size_t>(state.range(0)), static_cast<int>(state.range(1)));
    for (auto _ : state) {
        std::string out = opc::detail::toUTF8String(text, true);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
    state.SetLabel(label(static_cast<int>(state.range(1))));
}

void ToUTF8_Icu(benchmark::State& state) {
    std::u16string const text = makeText(static_cast<std::size_t>(state.range(0)), static_cast<int>(state.range(1)));
    std::vector<char> buffer(text.size() * 3 + 1);
    for (auto _ : state) {
        int32_t written = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strToUTF8(buffer.data(), static_cast<int32_t>(buffer.size()), &written, text.data(),
                    static_cast<int32_t>(text.size()), &status);
        benchmark::DoNotOptimize(buffer.data());
        if (U_FAILURE(status)) state.SkipWithError("conversion failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size() * 2));
    state.SetLabel(label(static_cast<int>(state.range(1))));
}

void FromUTF8_Library(benchmark::State& state) {
    std::string const bytes = opc::detail::toUTF8String(
        makeText(static_cast<std::size_t>(state.range(0)), static_cast<int>(state.range(1))), true);
    for (auto _ : state) {
        std::u16string out = opc::detail::toStringFromUTF8String(bytes, true);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    state.SetLabel(label(static_cast<int>(state.range(1))));
}

void FromUTF8_Icu(benchmark::State& state) {
    std::string const bytes = opc::detail::toUTF8String(
        makeText(static_cast<std::size_t>(state.range(0)), static_cast<int>(state.range(1))), true);
    std::vector<char16_t> buffer(bytes.size() + 1);
    for (auto _ : state) {
        int32_t written = 0;
        UErrorCode status = U_ZERO_ERROR;
        u_strFromUTF8(buffer.data(), static_cast<int32_t>(buffer.size()), &written, bytes.data(),
                      static_cast<int32_t>(bytes.size()), &status);
        benchmark::DoNotOptimize(buffer.data());
        if (U_FAILURE(status)) state.SkipWithError("conversion failed");
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
    state.SetLabel(label(static_cast<int>(state.range(1))));
}

void sizes(benchmark::internal::Benchmark* b) {
    for (long units : {static_cast<long>(kSmall), static_cast<long>(kLarge)}) {
        for (int kind : {Ascii, Mixed}) b->Args({units, kind});
    }
}

} // namespace

BENCHMARK(ToUTF8_Library)->Apply(sizes);
BENCHMARK(ToUTF8_Icu)->Apply(sizes);
BENCHMARK(FromUTF8_Library)->Apply(sizes);
BENCHMARK(FromUTF8_Icu)->Apply(sizes);

BENCHMARK_MAIN();
