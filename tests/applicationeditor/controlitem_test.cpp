// Parameter images: the hexadecimal text and its capacity rule, the element
// types with and without word swap, and the version database's layouts.
#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

#include "applicationeditor/datfile.h"
#include "applicationeditor/versiondb.h"
#include "tests/applicationeditor/apptesthelpers.h"

namespace tessitor {
namespace {

CControlItem Item(int type, int format)
{
    CControlItem item;
    item.m_sMnemonic = "KP";
    item.m_nType = type;
    item.m_nFormat = format;
    return item;
}

TEST(ParamsText, DecodesPairsUpToSemicolonWithinCapacityPlusOne)
{
    std::vector<std::uint8_t> bytes;

    EXPECT_EQ(1, CDatFile::DecodeParams("0aFf7", bytes, 8)); // the lone last digit is dropped
    EXPECT_EQ((std::vector<std::uint8_t>{0x0A, 0xFF}), bytes);
    EXPECT_EQ(1, CDatFile::DecodeParams("0102;zz", bytes, 8));
    EXPECT_EQ((std::vector<std::uint8_t>{1, 2}), bytes);
    EXPECT_EQ(1, CDatFile::DecodeParams("", bytes, 0));
    EXPECT_TRUE(bytes.empty());
    // Capacity N = 3: 2N + 2 digits fit, 2N + 4 do not, and neither does 2N + 3.
    EXPECT_EQ(1, CDatFile::DecodeParams("0102030405060708", bytes, 8));
    EXPECT_EQ(1, CDatFile::DecodeParams("01020304", bytes, 3));
    EXPECT_EQ(4u, bytes.size());
    EXPECT_EQ(0, CDatFile::DecodeParams("0102030405", bytes, 3));
    EXPECT_EQ(0, CDatFile::DecodeParams("010203040", bytes, 3));
    EXPECT_EQ(1, CDatFile::DecodeParams("01", bytes, 3));
    EXPECT_EQ(-1, CDatFile::DecodeParams("01 2", bytes, 3));
    EXPECT_EQ(-1, CDatFile::DecodeParams("0x12", bytes, 3));
    EXPECT_EQ("00AB7F", CDatFile::EncodeParams({0x00, 0xAB, 0x7F}));
}

TEST(ControlItem, SizesValuesAndTextFormsByTypeAndFormatWithAndWithoutWordSwap)
{
    float f = -2.5f;
    std::uint32_t fbits;
    std::memcpy(&fbits, &f, 4);
    double d = 1234.5678;
    std::uint64_t dbits;
    std::memcpy(&dbits, &d, 8);
    auto le = [](std::uint64_t raw, int size) {
        std::vector<std::uint8_t> out;
        for (int i = 0; i < size; ++i)
            out.push_back(static_cast<std::uint8_t>(raw >> (8 * i)));
        return out;
    };
    auto swapped = [](std::vector<std::uint8_t> b) { // the layout a word-swapping drive stores
        if (b.size() == 4)
            return std::vector<std::uint8_t>{b[2], b[3], b[0], b[1]};
        if (b.size() == 8)
            return std::vector<std::uint8_t>{b[6], b[7], b[4], b[5], b[2], b[3], b[0], b[1]};
        return b;
    };
    struct Case {
        int type, format, size;
        std::vector<std::uint8_t> bytes;
        double value;
        const char* text;
    };
    const Case cases[] = {
        {0, 1, 2, le(0xFFFE, 2), -2, "-2"},
        {1, 1, 2, le(0xFFFE, 2), 65534, "65534"},
        {2, 1, 4, le(0xFFFFFFF6u, 4), -10, "-10"},
        {2, 2, 4, le(fbits, 4), -2.5, "-2.500"},
        {3, 1, 4, le(0xFFFFFFF6u, 4), 4294967286.0, "4294967286"},
        {3, 2, 4, le(fbits, 4), -2.5, "-2.500"},
        {4, 1, 4, le(0x80000000u, 4), -2147483648.0, "-2147483648"},
        {4, 2, 4, le(fbits, 4), -2.5, "-2.500"},
        {4, 0, 4, le(fbits, 4), -2.5, "-2.500"},
        {8, 1, 1, {65}, 65, "A"},
        {16, 2, 8, le(dbits, 8), 1234.5678, "1234.568"},
    };

    for (const Case& c : cases) {
        CControlItem item = Item(c.type, c.format);
        std::vector<std::uint8_t> stored = swapped(c.bytes);
        std::vector<std::uint8_t> written(static_cast<std::size_t>(c.size));
        std::vector<std::uint8_t> writtenSwapped(static_cast<std::size_t>(c.size));
        item.SetValue(c.value, written.data(), false);
        item.SetValue(c.value, writtenSwapped.data(), true);

        EXPECT_EQ(c.size, item.GetSize()) << c.type;
        EXPECT_DOUBLE_EQ(c.value, item.GetValue(c.bytes.data(), false)) << c.type << "/" << c.format;
        EXPECT_EQ(c.text, item.GetText(c.bytes.data(), false)) << c.type << "/" << c.format;
        EXPECT_EQ(c.text, item.GetText(stored.data(), true)) << c.type << "/" << c.format << " swapped";
        EXPECT_EQ(c.bytes, written) << c.type << "/" << c.format;
        EXPECT_EQ(stored, writtenSwapped) << c.type << "/" << c.format;
    }
    std::uint8_t nul = 0;
    EXPECT_EQ(std::string(1, '\0'), Item(8, 1).GetText(&nul, false));
    for (int other : {5, 6, 7, 9, 32, -1}) {
        EXPECT_EQ(-1, Item(other, 1).GetSize());
        EXPECT_EQ("", Item(other, 1).GetText(&nul, false));
    }
    std::uint8_t clamp[2] = {};
    Item(0, 1).SetValue(1e9, clamp, false);
    EXPECT_EQ("32767", Item(0, 1).GetText(clamp, false));
}

TEST(VersionDb, LayoutsOfTheShippedDatabaseAndItsFindRules)
{
    auto db = CVersionDb::Default();

    const VersionLayout* tal = db->Find("Talvina 2.1.0.0");
    const VersionLayout* talLater = db->Find("Talvina 2.1.9.9");
    const VersionLayout* talOld = db->Find("Talvina 2.0.0.0");
    const VersionLayout* bressa = db->Find("Bressa 1.0.4.2");

    ASSERT_TRUE(tal && bressa && talOld);
    EXPECT_EQ(tal, talLater); // the third and fourth numbers never change the layout
    EXPECT_NE(tal, talOld);
    EXPECT_EQ(nullptr, db->Find("Talvina 2.2.0.0"));
    EXPECT_EQ(nullptr, db->Find("Unknown version"));
    EXPECT_FALSE(tal->bWordSwap);
    EXPECT_TRUE(bressa->bWordSwap);

    std::vector<std::uint8_t> image;
    std::string hex = CDatFile::EncodeParams(std::vector<std::uint8_t>(tal->ImageSize(), 0x11));
    EXPECT_EQ("", tal->ImageFromText(hex, image));
    EXPECT_EQ(tal->ImageSize(), image.size());
    EXPECT_EQ("", tal->ImageFromText(hex + "22", image)); // one byte more fits the capacity rule
    EXPECT_EQ(tal->ImageSize(), image.size());
    EXPECT_EQ(kSizeMismatchText, tal->ImageFromText(hex + "2233", image));
    EXPECT_EQ(kSizeMismatchText, tal->ImageFromText(hex.substr(2), image));
    EXPECT_NE("", tal->ImageFromText("G" + hex.substr(1), image));
}

TEST(VersionDb, MalformedFilesNameTheirLine)
{
    test::CTempDir dir;
    auto error = [&](const std::string& text) {
        test::WriteFile(dir / "v.txt", text);
        try {
            CVersionDb::Load(dir / "v.txt");
        } catch (const std::runtime_error& e) {
            return std::string(e.what());
        }
        return std::string("loaded");
    };

    EXPECT_EQ("loaded", error("# comment\nlist A\nversion X 1.2.3.4\nwordswap 1\n"
                              "KP 1..3 4 2 0 1 0 rws gain\nMO - 0 1 0 1 0 rw not saved\nend\n"));
    EXPECT_EQ(dir / "v.txt" + ":2: type code 5 has no size in the image", error("list A\nKP - 5 1 0 1 0 rws\nend\n"));
    EXPECT_EQ(dir / "v.txt" + ":1: \"KP\" outside a list", error("KP - 1 1 0 1 0 rws\n"));
    EXPECT_EQ(dir / "v.txt" + ":2: list A has no \"end\"", error("list A\nversion X 1.2.3.4\n"));
    EXPECT_NE(std::string::npos, error("list A\nKP 3..1 1 1 0 1 0 rws\nend\n").find(":2: a parameter row"));
    test::WriteFile(dir / "v.txt", "list A\nversion X 1.2.3.4\nKP 1..3 4 2 0 1 0 rws\nMO - 0 1 0 1 0 rw\nend\n");
    CVersionDb db = CVersionDb::Load(dir / "v.txt");
    const VersionLayout* layout = db.Find("X 1.2.0.0");
    ASSERT_TRUE(layout);
    EXPECT_EQ(3u, layout->arItems.size());
    EXPECT_EQ("KP[3]", layout->arItems[2].GetName());
}

} // namespace
} // namespace tessitor
