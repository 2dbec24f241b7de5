// Pixel formats of the cameras: CoaXPress codes to PFNC, supported formats
// with their bits per pixel, and the entry-name fallback.
#include <gtest/gtest.h>

#include "pixelformat/pixel_formats.h"

namespace {

using namespace pelorin::pixel;

TEST(PixelFormats, CoaXPressCodesMapToPfncAndOthersPassThrough) {
    EXPECT_EQ(CxpToPfnc(0x0101), 0x01080001u);  // Mono8
    EXPECT_EQ(CxpToPfnc(0x0102), 0x01100003u);  // Mono10
    EXPECT_EQ(CxpToPfnc(0x0311), 0x01080008u);  // BayerGR8
    EXPECT_EQ(CxpToPfnc(0x0401), 0x02180014u);  // RGB8
    EXPECT_EQ(CxpToPfnc(0x0823), 0x02200097u);
    EXPECT_EQ(CxpToPfnc(0x01100005), 0x01100005u);  // already PFNC
    EXPECT_EQ(CxpToPfnc(0x0100), 0x0100u);
    EXPECT_EQ(CxpToPfnc(0xFFFFFFFFFFull), 0xFFFFFFFFFFull);
}

TEST(PixelFormats, BitsCountTheCardsOutput) {
    EXPECT_EQ(BitsPerPixel(0x01080001), 8);   // Mono8
    EXPECT_EQ(BitsPerPixel(0x01100003), 10);  // Mono10 unpacked: its significant bits
    EXPECT_EQ(BitsPerPixel(0x010C0047), 12);  // Mono12p
    EXPECT_EQ(BitsPerPixel(0x01100025), 14);
    EXPECT_EQ(BitsPerPixel(0x02180014), 24);  // RGB8
    EXPECT_EQ(BitsPerPixel(0x02300018), 48);  // RGB10: 3 components count 48
    EXPECT_EQ(BitsPerPixel(0x01010037), 1);
    EXPECT_EQ(BitsPerPixel(0x0240005F), 0);  // mapped from CoaXPress, not delivered
    EXPECT_EQ(BitsPerPixel(0), 0);
    EXPECT_TRUE(IsSupported(0x02240034));
    EXPECT_FALSE(IsSupported(0x0101));  // a CoaXPress code must be mapped first
}

TEST(PixelFormats, ResolvingFallsBackOnTheEntryName) {
    EXPECT_EQ(ResolvePixelFormat(0x0102, "whatever"), 0x01100003u);
    EXPECT_EQ(ResolvePixelFormat(0x0502, "Mono8"), 0x01080001u);
    EXPECT_EQ(ResolvePixelFormat(0x0502, "Mono16"), 0x01100007u);
    EXPECT_EQ(ResolvePixelFormat(0x0502, "RGBa10"), 0u);
    EXPECT_EQ(ResolvePixelFormat(0x01100005, ""), 0x01100005u);
    EXPECT_EQ(ResolvePixelFormat(0x12345678, "mono8"), 0u);  // names compare exactly
}

}  // namespace
