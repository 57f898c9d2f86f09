#include "Trace/Records/TraceParameter.h"

#include <gtest/gtest.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>
#include <vector>

#include "Trace/Records/TraceIDTextMap.h"
#include "Trace/Records/TraceMessage.h"

namespace Tracing {

namespace {

std::string Format(const char* format, const TraceMessage& message) {
    std::string out = "stale";
    TraceParameter::FormatString(out, format, 0, message.GetParameterCount(), message.GetParameters());
    return out;
}

std::string Text(const TraceParameter& p,
                 TraceParameter::FormatSpecifiers specifier = TraceParameter::Default) {
    std::string out;
    p.AppendToString(out, specifier);
    return out;
}

// The number as ToString writes it (with `specifier` where the type takes one).
template <class T, class... Specifier>
std::string Number(T value, Specifier... specifier) {
    char text[TraceParameter::MaxNumberTextLength + 1];
    TraceParameter::ToString(value, text, sizeof(text), specifier...);
    return text;
}

template <class T>
std::string Printf(const char* format, T value) {
    char text[64];
    std::snprintf(text, sizeof(text), format, value);
    return text;
}

}  // namespace

TEST(TraceParameter, PlaceholderLanguageKeepsItsAsymmetries) {
    TraceMessage two;
    two.Add(int32_t{255}).Add(int32_t{7});
    const struct {
        const char* format;
        const char* expected;
    } cases[] = {
        {"value %1 of %2", "value 255 of 7"},
        {"%%1", "%1"},
        {"100%", "100%"},
        {"%s and %0", "%s and %0"},
        {"%3", "<Unknown parameter (3)!>"},
        {"%{3}", "<Unknown parameter (3)!>}"},
        {"%{3:x}", "<Unknown parameter (3)!>:x}"},
        {"%1:x", "ff"},
        {"%1:X", "ff"},
        {"%{1:p}", "0x000000ff"},
        {"%{1:q}", "%{1:q}"},
        {"%1:q", "255:q"},
        {"%{12}", "%{12}"},
        {"%{2}%{1}", "7255"},
        {"%{", "%{"},
        {"%{1", "%{1"},
        {"%{1:", "%{1:"},
        {"%1:", "255:"},
        {"a%2b%9", "a7b<Unknown parameter (9)!>"},
        {"%1:%", "255:%"},
        {"%10", "2550"},
        {"%4294967297", "<Unknown parameter (4)!>294967297"},
        {"%{0}", "%{0}"},
        {"%0:x", "%0:x"},
        {"%{1:xx}", "%{1:xx}"},
        {"%%%{1}}}", "%255}}"},
        {"", ""},
    };
    for (const auto& c : cases)
        EXPECT_EQ(Format(c.format, two), c.expected) << c.format;

    TraceMessage wide;
    wide.Add(int64_t{255}).Add(true).Add(2.5f).Add(-1.0e-20).Add("txt").Add(u"w\u00e4");
    EXPECT_EQ(Format("%1:p %{1:x} %2 %3 %4 %5:x %6", wide),
              "0x00000000000000ff ff true 2.5 -1e-20 txt w\xc3\xa4");

    std::string out;
    TraceParameter::FormatString(out, nullptr, 0, 0, nullptr);
    EXPECT_EQ(out, "<No format string!>");
    TraceParameter::FormatString(out, "%1 %2", 0, 2, nullptr);  // no array: no parameters
    EXPECT_EQ(out, "<Unknown parameter (1)!> <Unknown parameter (2)!>");
}

TEST(TraceParameter, NumberTextsEqualPrintf) {
    const int64_t values[] = {0, 1, -1, 255, INT32_MIN, INT32_MAX, INT64_MIN, INT64_MAX, 0x123456789abcdefLL};
    for (const int64_t v : values) {
        const auto u = static_cast<uint64_t>(v);
        const auto v32 = static_cast<int32_t>(v);
        EXPECT_EQ(Number(v, TraceParameter::Default), Printf("%" PRId64, v));
        EXPECT_EQ(Number(u, TraceParameter::Default), Printf("%" PRIu64, u));
        EXPECT_EQ(Number(v, TraceParameter::Hex), Printf("%" PRIx64, u));
        EXPECT_EQ(Number(v, TraceParameter::Pointer), Printf("0x%016" PRIx64, u));
        EXPECT_EQ(Number(v32, TraceParameter::Default), Printf("%d", v32));
        EXPECT_EQ(Number(static_cast<uint32_t>(v32), TraceParameter::Pointer),
                  Printf("0x%08x", static_cast<uint32_t>(v32)));
    }
    for (const double d : {0.0, 1e300, -3.25, 1.0 / 3, 1e-5, 123456789.0})
        EXPECT_EQ(Number(d), Printf("%g", d));

    // Truncated to the buffer and always terminated, never a byte beyond.
    char small[6];
    std::memset(small, 'X', sizeof(small));
    TraceParameter::ToString(int64_t{-1234567}, small, 4, TraceParameter::Default);
    EXPECT_STREQ(small, "-12");
    EXPECT_EQ(small[4], 'X');
    TraceParameter::ToString(false, small, 3);
    EXPECT_STREQ(small, "fa");
}

TEST(TraceParameter, TruncationCutsCopiesOnly) {
    TraceParameter s(ParameterTypes::String, "abcdefgh");
    s.SetTruncated(6);
    EXPECT_EQ(s.GetDataSize(), 6u);
    EXPECT_EQ(Text(s), "ab...");
    TraceParameter t(ParameterTypes::String, "abcdefgh");
    t.SetTruncated(5);
    EXPECT_EQ(Text(t), "abcd");

    // An owned heap block that becomes short enough moves inline; a long one stays owned.
    const std::string longText(100, 'z');
    TraceParameter big(ParameterTypes::String, longText.c_str());
    ASSERT_FALSE(big.FitsInBuffer());
    big.SetTruncated(50);
    EXPECT_EQ(Text(big), std::string(46, 'z') + "...");
    EXPECT_EQ(big.Raw().owned, 1);
    big.SetTruncated(8);
    EXPECT_EQ(Text(big), "zzzz...");
    EXPECT_TRUE(big.FitsInBuffer());
    EXPECT_EQ(big.Raw().owned, 0);

    // Wide strings count UTF-16 units.
    TraceParameter w(ParameterTypes::WideString, u"abcdefghij");
    w.SetTruncated(6);
    EXPECT_EQ(w.GetDataSize(), 12u);
    EXPECT_EQ(Text(w), "ab...");

    // An embedded terminator shortens further; references are never shortened.
    const char embedded[] = "ab\0defghijk";
    TraceParameter e(ParameterTypes::String, nullptr);
    TraceParameter::Clear(e.Raw());
    TraceParameter::InitWithSize(e.Raw(), ParameterTypes::String, embedded, sizeof(embedded));
    e.SetTruncated(9);
    EXPECT_EQ(e.GetDataSize(), 3u);
    TraceParameter r(ParameterTypes::StringRef, longText.c_str());
    r.SetTruncated(6);
    EXPECT_EQ(r.GetData(), longText.c_str());
    EXPECT_EQ(r.GetDataSize(), 101u);

    r.SetToTooLong();
    EXPECT_EQ(r.GetType(), ParameterTypes::TooLong);
    EXPECT_EQ(Text(r), "<Parameter too long, removed!>");
}

TEST(TraceParameter, ValueCopiesOwnOrShareByType) {
    const std::string longText = "a string longer than eight bytes";
    TraceParameter owned(ParameterTypes::String, longText.c_str());
    TraceParameter borrowed(ParameterTypes::StringRef, longText.c_str());
    TraceParameter ownedCopy(owned);
    TraceParameter borrowedCopy(borrowed);
    EXPECT_NE(ownedCopy.GetData(), owned.GetData());
    EXPECT_EQ(Text(ownedCopy), longText);
    EXPECT_EQ(borrowedCopy.GetData(), longText.c_str());

    ownedCopy = TraceParameter(ParameterTypes::String, "seven!!");  // the old block is freed
    const TraceParameter& self = ownedCopy;
    ownedCopy = self;
    EXPECT_EQ(Text(ownedCopy), "seven!!");
    EXPECT_EQ(Text(TraceParameter(static_cast<ParameterTypes::Values>(42), nullptr)),
              "<Invalid parameter (type: 42)!>");
}

TEST(TraceParameter, WideStringsAtOddAddresses) {
    const char16_t text[] = u"gr\u00fc\u00df \U0001F600 wide text";
    std::vector<unsigned char> block(sizeof(text) + 2);
    for (const std::size_t offset : {std::size_t{0}, std::size_t{1}}) {
        std::memcpy(block.data() + offset, text, sizeof(text));
        const void* data = block.data() + offset;
        EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::WideString, data), sizeof(text));
        EXPECT_EQ(TraceParameter::GetWideStringLength(data), sizeof(text) / 2 - 1);
        EXPECT_EQ(
            TraceParameter::GetParameterSize(ParameterTypes::WideString, data, block.data() + block.size()),
            sizeof(text));
        std::string out;
        TraceParameter::AppendToString(out, ParameterTypes::WideString, data, TraceParameter::Default);
        EXPECT_EQ(out, "gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80 wide text");
        TraceParameter ref(ParameterTypes::WideStringRef, data);
        EXPECT_EQ(Text(ref), out);
    }
}

TEST(TraceParameter, SerialisedFormAndBoundedSizes) {
    const std::string longText(20, 'q');
    const char16_t wide[] = u"wide string";
    TraceMessage m;
    m.Add(int32_t{-3}).Add(longText);
    ::TraceParameter* ref = m.AddRawParameter();
    TraceParameter::Init(*ref, ParameterTypes::StringRef, longText.c_str());
    TraceParameter::Init(*m.AddRawParameter(), ParameterTypes::WideStringRef, wide);
    TraceParameter::SetToTooLong(*m.AddRawParameter());
    m.Add(int64_t{-9});

    std::vector<char> bytes(512);
    char* end = bytes.data();
    for (unsigned i = 0; i < m.GetParameterCount(); ++i) {
        char* start = end;
        end = TraceParameter::Serialize(m.GetParameters()[i], end);
        EXPECT_EQ(static_cast<uint64_t>(end - start),
                  TraceParameter::GetSerializedSize(m.GetParameters()[i]));
    }
    EXPECT_EQ(bytes[1 + 4 + 1 + 21], ParameterTypes::String);  // StringRef written as String
    EXPECT_EQ(bytes[1 + 4 + 2 * 22], ParameterTypes::WideString);
    EXPECT_EQ(bytes[1 + 4 + 2 * 22 + 1 + sizeof(wide)], ParameterTypes::TooLong);  // one byte, no data
    EXPECT_EQ(bytes[1 + 4 + 2 * 22 + 1 + sizeof(wide) + 1], ParameterTypes::Int64);

    // A bound that cuts a value gives 0; the bound is never read.
    const char* s = "abc";
    EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::String, s, s + 4), 4u);
    EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::String, s, s + 3), 0u);
    const char16_t* w = u"ab";
    EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::WideString, w, w + 2), 0u);
    EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::Int64, s, s + 4), 0u);
    EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::Bool, s, s + 1), 1u);
    EXPECT_EQ(TraceParameter::GetParameterSize(ParameterTypes::TooLong, s), 0u);
    EXPECT_EQ(TraceParameter::GetParameterSize(static_cast<ParameterTypes::Values>(13), s), 0u);
}

TEST(TraceParameter, FailedBinaryTraceTextRoundTrip) {
    TraceIDTextMap& map = TraceIDTextMap::GetInstance();
    map.Clear();
    TraceMessage m;
    m.Add(int32_t{-3}).Add("abc");
    std::string failed;
    TraceParameter::FormatString(failed, nullptr, 4711, m.GetParameterCount(), m.GetParameters());
    EXPECT_EQ(failed, "Binary trace ID '4711' not found! Params:2 ;4:-3;2:abc;");
    std::string out = "unchanged";
    TraceParameter::ParseFailedBinaryTrace(out, failed.c_str());
    EXPECT_EQ(out, "unchanged");  // no text yet

    TraceIDTextFile file("texts");
    file.SetText(4711, "%1 of %2");
    file.SetText(12, "[%1|%2|%3|%4|%5|%6|%7]");
    file.SetText(13, "plain %1");
    map.AddFile(std::move(file));
    TraceParameter::ParseFailedBinaryTrace(out, failed.c_str());
    EXPECT_EQ(out, "-3 of abc");

    // Quoted CSV values, 64-bit numbers and doubles (substituted as written) survive.
    TraceMessage mixed;
    mixed.Add("a;b \"q\"")
        .Add(int64_t{INT64_MIN})
        .Add(uint64_t{UINT64_MAX})
        .Add(0.125)
        .Add(uint32_t{4000000000u})
        .Add(u"w\u00e9");
    TraceParameter::SetToTooLong(*mixed.AddRawParameter());
    TraceParameter::FormatFailedBinaryTrace(failed, 12, mixed.GetParameterCount(), mixed.GetParameters());
    TraceParameter::ParseFailedBinaryTrace(out, failed.c_str());
    EXPECT_EQ(out,
              "[a;b \"q\"|-9223372036854775808|18446744073709551615|0.125|4000000000|w\xc3\xa9|"
              "<Parameter too long, removed!>]");
    // Cut anywhere or padded with noise, the text is never read beyond its end.
    for (std::size_t cut = 0; cut < failed.size(); ++cut)
        for (const char* noise : {"", ";", "'", ":%x;\"", "\"\";;9:"})
            TraceParameter::ParseFailedBinaryTrace(out, (failed.substr(0, cut) + noise).c_str());

    TraceParameter::FormatFailedBinaryTrace(failed, 13, 0, nullptr);
    EXPECT_EQ(failed, "Binary trace ID '13' not found!");
    TraceParameter::ParseFailedBinaryTrace(out, failed.c_str());
    EXPECT_EQ(out, "plain %1");  // no parameter list: the text as stored

    out = "kept";
    for (const char* bad :
         {"Binary trace ID 4711", "Binary trace ID '0' x;", "Binary trace ID 'x'", "other"}) {
        TraceParameter::ParseFailedBinaryTrace(out, bad);
        EXPECT_EQ(out, "kept") << bad;
    }
    map.Clear();
}

}  // namespace Tracing
