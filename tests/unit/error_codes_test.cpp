// Error texts, the last-error rule and the info copy-out rule.
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "gentl_base/copy_info.h"
#include "gentl_base/error_codes.h"

using namespace pelorin;

TEST(ErrorText, EveryCodeHasItsTextAndOthersAreUnknown) {
    EXPECT_STREQ(ErrorText(0), "No error");
    EXPECT_STREQ(ErrorText(-1001), "Unspecified runtime error");
    EXPECT_STREQ(ErrorText(-1016), "A provided buffer is too small");
    EXPECT_STREQ(ErrorText(-1023),
                 "The required operation cannot be executed unambiguously in given context");
    EXPECT_STREQ(ErrorText(-10001), "feature is not command");
    EXPECT_STREQ(ErrorText(-10014), "this is not card's file");
    for (GC_ERROR unknown : {1, -1, -1000, -1024, -10000, -10015, INT32_MIN})
        EXPECT_STREQ(ErrorText(unknown), "Unknown status code") << unknown;
    // Every code in the two ranges has a distinct, non-empty text.
    for (GC_ERROR code = -1023; code <= -1001; ++code)
        EXPECT_STRNE(ErrorText(code), "Unknown status code") << code;
    for (GC_ERROR code = -10014; code <= -10001; ++code)
        EXPECT_STRNE(ErrorText(code), "Unknown status code") << code;
}

TEST(ErrorText, TimeoutTextCarriesTheGbkQuotationMark) {
    const std::string text = ErrorText(GC_ERR_TIMEOUT);
    ASSERT_EQ(text.size(), 65u);  // 66 with the NUL
    EXPECT_EQ(text.substr(0, 12), "An operation");
    EXPECT_EQ(static_cast<unsigned char>(text[12]), 0xA1);
    EXPECT_EQ(static_cast<unsigned char>(text[13]), 0xAF);
    EXPECT_EQ(text.substr(14), "s timeout time expired before it could be completed");
}

TEST(LastError, OnlyFailuresAreStoredAndTheCodeIsPassedThrough) {
    EXPECT_EQ(RecordLastError(GC_ERR_IO), GC_ERR_IO);
    EXPECT_EQ(LastError(), GC_ERR_IO);
    EXPECT_EQ(RecordLastError(GC_ERR_SUCCESS), GC_ERR_SUCCESS);
    EXPECT_EQ(LastError(), GC_ERR_IO);
    EXPECT_EQ(RecordLastError(KV_ERR_EXCEPTION), KV_ERR_EXCEPTION);
    EXPECT_EQ(LastError(), KV_ERR_EXCEPTION);
}

TEST(CopyInfoValue, SizesTypesShortBuffersAndSizeQueries) {
    struct Case {
        INFO_DATATYPE type;
        size_t size;
    } cases[] = {{INFO_DATATYPE_INT16, 2},  {INFO_DATATYPE_UINT16, 2}, {INFO_DATATYPE_INT32, 4},
                 {INFO_DATATYPE_UINT32, 4}, {INFO_DATATYPE_INT64, 8},  {INFO_DATATYPE_UINT64, 8},
                 {INFO_DATATYPE_FLOAT64, 8}, {INFO_DATATYPE_PTR, 8},   {INFO_DATATYPE_SIZET, 8},
                 {INFO_DATATYPE_BOOL8, 1}};
    const uint64_t source = 0x1122334455667788ull;
    for (const Case &c : cases) {
        unsigned char out[16];
        std::memset(out, 0xEE, sizeof out);
        INFO_DATATYPE type = -5;
        size_t size = 0;
        EXPECT_EQ(CopyInfoValue(c.type, &type, &source, nullptr, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(type, -5);
        size = c.size - 1;
        EXPECT_EQ(CopyInfoValue(c.type, &type, &source, out, &size), GC_ERR_BUFFER_TOO_SMALL);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(out[0], 0xEE);
        size = sizeof out;
        EXPECT_EQ(CopyInfoValue(c.type, &type, &source, out, &size), GC_ERR_SUCCESS);
        EXPECT_EQ(size, c.size);
        EXPECT_EQ(type, c.type);
        EXPECT_EQ(std::memcmp(out, &source, c.size), 0);
        EXPECT_EQ(out[c.size], 0xEE);  // exactly that many bytes
    }
    for (INFO_DATATYPE unsupported : std::initializer_list<INFO_DATATYPE>{INFO_DATATYPE_UNKNOWN, INFO_DATATYPE_STRINGLIST,
                                      INFO_DATATYPE_BUFFER, INFO_DATATYPE_PTRDIFF, 1000}) {
        size_t size = 8;
        char out[8] = {};
        EXPECT_EQ(CopyInfoValue(unsupported, nullptr, &source, out, &size), GC_ERR_NOT_IMPLEMENTED);
        EXPECT_EQ(size, 8u);
    }
    // Strings count their NUL.
    char text[16];
    size_t size = 3;
    INFO_DATATYPE type = 0;
    EXPECT_EQ(CopyInfoString("CXP", &type, text, &size), GC_ERR_BUFFER_TOO_SMALL);
    EXPECT_EQ(size, 4u);
    EXPECT_EQ(CopyInfoString("CXP", &type, text, &size), GC_ERR_SUCCESS);
    EXPECT_STREQ(text, "CXP");
    EXPECT_EQ(type, INFO_DATATYPE_STRING);
}
