// Decoding the drive's "BH" answer: header fields, sample layouts, the
// single-precision scaling, and the answers that must be asked for again.
#include <gtest/gtest.h>

#include <cmath>

#include "recorder/vector.h"

using namespace tessitor;

namespace {

std::vector<double> Decoded(const std::string& text, bool expectOk = true)
{
    std::vector<double> samples{-99}; // appended to, never replaced
    EXPECT_EQ(CVector::Decode(text, samples), expectOk) << text;
    samples.erase(samples.begin());
    return samples;
}

} // namespace

TEST(BhDecode, EachTypeAndWidthAsTheDriveSendsIt)
{
    // Type 0, 16-bit, scale 0.001 (0x3A83126F): 0x8000 is -32768.
    EXPECT_EQ(Decoded("000400020000" "3A83126F" "0001" "8000"),
              (std::vector<double>{static_cast<double>(1 * 0.001f), static_cast<double>(-32768 * 0.001f)}));
    // Type 1, 32-bit, scale 1; lower-case digits are hex digits too.
    EXPECT_EQ(Decoded("010800020001" "3f800000" "fffffffe" "00000FA0"), (std::vector<double>{-2, 4000}));
    // Type 2, 32-bit: beyond 2^24 the single-precision step shows.
    EXPECT_EQ(Decoded("020800010000" "3F800000" "01000001"), (std::vector<double>{16777216}));
    // The product is single precision, then widened: 3 x 0.1f is not 0.3.
    std::vector<double> scaled = Decoded("000400010000" "3DCCCCCD" "0003");
    ASSERT_EQ(scaled.size(), 1u);
    EXPECT_EQ(scaled[0], static_cast<double>(3.0f * 0.1f));
    EXPECT_NE(scaled[0], 3.0 * static_cast<double>(0.1f));
    // Type 3: IEEE singles, not scaled (the scale field says 2).
    EXPECT_EQ(Decoded("030800020000" "40000000" "3FC00000" "C2F60000"), (std::vector<double>{1.5, -123}));

    // Other widths and types decode but append nothing for their samples.
    EXPECT_TRUE(Decoded("000200030000" "3F800000" "010203").empty());
    EXPECT_TRUE(Decoded("040800010000" "3F800000" "00000001").empty());
    // An empty chunk is a valid answer.
    EXPECT_TRUE(Decoded("01080000" "0000" "3F800000").empty());

    BhHeader header;
    std::vector<double> samples;
    ASSERT_TRUE(CVector::Decode("0104000112343F800000" "0007", samples, &header));
    EXPECT_EQ(header.nDataType, 1u);
    EXPECT_EQ(header.nDigits, 4u);
    EXPECT_EQ(header.nCount, 1u);
    EXPECT_EQ(header.nFourth, 0x1234u);
    EXPECT_EQ(header.fScale, 1.0f);
}

TEST(BhDecode, ShortMisSizedOrGarbledAnswersFailAndAppendNothing)
{
    Decoded(std::string(19, '0'), false);
    Decoded("", false);
    Decoded("010800020000" "3F800000" "00000001", false); // one sample short
    Decoded("010800010000" "3F800000" "000000010", false); // one digit too many
    Decoded("010800010000" "3F800000" "0000000G", false); // not a hex digit
    Decoded("01 800010000" "3F800000" "00000001", false); // a blank in the header

    CVector vector;
    EXPECT_TRUE(vector.AppendChunk("010800010000" "3F800000" "00000005"));
    EXPECT_FALSE(vector.AppendChunk("01080002"));
    EXPECT_TRUE(vector.AppendChunk("010800010000" "3F800000" "00000006"));
    EXPECT_EQ(vector.Samples(), (std::vector<double>{5, 6}));
    vector.Clear();
    EXPECT_EQ(vector.Size(), 0u);
}
