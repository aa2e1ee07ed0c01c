// The family command methods end to end: image and program transfers
// against the virtual drive over a pseudo-terminal, loopback TCP and an
// SLCAN bus, and the chunking, its progress and bad answers against a
// scripted drive (tests/cli/app_cli_test.cpp moves a two-chunk image through
// the virtual drive on every face).
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "applicationeditor/canmethods.h"
#include "applicationeditor/datfile.h"
#include "applicationeditor/nolbrers232methods.h"
#include "applicationeditor/talrs232methods.h"
#include "applicationeditor/versiondb.h"
#include "communication/linkfactory.h"
#include "communication/rs232.h"
#include "communication/tcp.h"
#include "sim/simserialserver.h"
#include "sim/simslcanserver.h"
#include "sim/simtcpserver.h"
#include "tests/applicationeditor/apptesthelpers.h"
#include "tests/support/scriptedpeer.h"
#include "tests/tcp/tcppeer.h"

namespace tessitor {
namespace {

using test::Connect;
using test::CRecordingWindow;
using test::DriveLink;
using test::Face;
using test::Thrown;

TEST(ProductMethods, ImageAndProgramTravelBothWaysOverSerialTcpAndCanForBothFamilies)
{
    for (Face face : {Face::kSerial, Face::kTcp, Face::kCan}) {
        for (const char* product : {"Talvina", "Bressa"}) {
            SCOPED_TRACE(std::string(product) + (face == Face::kTcp   ? " over TCP"
                                                 : face == Face::kCan ? " over CAN"
                                                                      : " over a serial line"));
            DriveLink d = Connect(product, face);
            auto methods = CreateProductMethods(*d.pLink);
            bool tal = std::string(product) == "Talvina";
            const VersionLayout* layout = methods->GetDriveLayout();
            ASSERT_TRUE(layout);
            auto kp2 = std::find_if(layout->arItems.begin(), layout->arItems.end(),
                                    [](const CControlItem& item) { return item.GetName() == "KP[2]"; });
            std::size_t kp2Offset = 0;
            for (auto it = layout->arItems.begin(); it != kp2; ++it)
                kp2Offset += static_cast<std::size_t>(it->GetSize());
            CRecordingWindow upWindow, downWindow, programWindow;

            methods->SendCommand("KP[2]=0.5", 2000);
            std::string hex = methods->UploadImage(&upWindow);
            std::vector<std::uint8_t> image;
            ASSERT_EQ("", layout->ImageFromText(hex, image));
            double uploaded = kp2->GetValue(image.data() + kp2Offset, layout->bWordSwap);
            kp2->SetValue(0.25, image.data() + kp2Offset, layout->bWordSwap);
            methods->DownloadImage(CDatFile::EncodeParams(image), &downWindow);
            std::string downloaded = methods->SendCommand("KP[2]", 2000);
            auto mismatch = Thrown([&] { methods->DownloadImage(hex + "AABB"); });
            std::string afterMismatch = methods->SendCommand("KP[2]", 2000);

            // A program as a file gives it back after a save and a load: "\n\r" between lines.
            methods->DownloadProgram("MO=0\n\r'comment\n\r\n\rWT=10", &programWindow);
            std::string listing = methods->UploadProgram();
            bool compiledByDownload = std::stoul(methods->SendCommand("SR", 2000)) >> 9 & 1;
            std::string compile = methods->CompileProgram();
            bool compiledNow = std::stoul(methods->SendCommand("SR", 2000)) >> 9 & 1;
            methods->DownloadProgram("");
            std::string emptyListing = methods->UploadProgram();

            EXPECT_EQ(tal ? "Tal" : "NolBre", std::string(methods->GetFamily()));
            if (face == Face::kCan) {
                EXPECT_EQ(tal, dynamic_cast<CTalCANMethods*>(methods.get()) != nullptr);
                EXPECT_EQ(!tal, dynamic_cast<CNolBreCANMethods*>(methods.get()) != nullptr);
            } else {
                EXPECT_EQ(tal, dynamic_cast<CTalRs232Methods*>(methods.get()) != nullptr);
                EXPECT_EQ(!tal, dynamic_cast<CNolBreRs232Methods*>(methods.get()) != nullptr);
            }
            EXPECT_EQ(layout->ImageSize() * 2, hex.size());
            EXPECT_DOUBLE_EQ(0.5, uploaded); // a parameter set by command is at its place in the image
            EXPECT_EQ("0.25", downloaded);   // and an image written changes the parameter
            EXPECT_EQ(kSizeMismatchText, mismatch.FillMessage());
            EXPECT_EQ(kErrSrcLink, mismatch.m_nErrorSource);
            EXPECT_EQ("0.25", afterMismatch);
            std::size_t size = layout->ImageSize();
            EXPECT_EQ((std::vector<CRecordingWindow::Message>{{kMsgTransferStart, size, kImageChunkBytes},
                                                              {kMsgTransferStep, size, size},
                                                              {kMsgTransferEnd, 0, 0}}),
                      upWindow.m_arMessages);
            EXPECT_EQ(upWindow.m_arMessages, downWindow.m_arMessages);
            EXPECT_EQ("MO=0\n'comment\n\nWT=10", listing);
            EXPECT_EQ(tal, compiledByDownload); // NolBre leaves "CC" to the caller
            EXPECT_EQ("4", compile);
            EXPECT_TRUE(compiledNow);
            EXPECT_EQ("", emptyListing);
            ASSERT_EQ(6u, programWindow.m_arMessages.size());
            EXPECT_EQ((CRecordingWindow::Message{kMsgTransferStep, 21, 21}), programWindow.m_arMessages[4]);
            d.pLink->Disconnect();
        }
    }
}

TEST(ProductMethods, ImagesLargerThanAChunkMoveInChunksAndBadAnswersAreRefused)
{
    test::CScriptedPeer peer;
    std::vector<std::uint8_t> image(5000);
    for (std::size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<std::uint8_t>(i * 7);
    const std::string hex = CDatFile::EncodeParams(image);
    // A drive that answers chunk 1 with corrupt, and refuses chunk 2, when corrupt is not empty.
    auto drive = [&hex](std::string corrupt) {
        return [&hex, corrupt](const std::string& line) {
            for (int n = 0; n < 3; ++n)
                if (line == "IM[" + std::to_string(n) + "]\r")
                    return test::CScriptedPeer::Answer(line, n == 1 && !corrupt.empty()
                                                                 ? corrupt
                                                                 : hex.substr(static_cast<std::size_t>(n) * 4096, 4096));
            if (line.rfind("IM[2]=", 0) == 0 && !corrupt.empty())
                return test::CScriptedPeer::Refusal(line, 4);
            return test::CScriptedPeer::Answer(line, "");
        };
    };
    peer.SetHandler(drive(""));
    CRs232 link{CCommunicationInfo{}};
    link.SetDevicePath(peer.Path());
    ASSERT_EQ(0, link.Connect());
    auto methods = CreateProductMethods(link); // not identified: no layout, size unknown
    CRecordingWindow window;

    std::string uploaded = methods->UploadImage(&window);
    methods->DownloadImage(hex);
    peer.SetHandler(drive(std::string(4095, 'A') + "G"));
    auto bad = Thrown([&] { methods->UploadImage(); });
    peer.SetHandler(drive("A"));
    auto odd = Thrown([&] { methods->UploadImage(); });
    auto refused = Thrown([&] { methods->DownloadImage(hex); });
    auto empty = Thrown([&] { methods->DownloadImage(";"); });

    EXPECT_EQ(hex, uploaded);
    EXPECT_EQ((std::vector<CRecordingWindow::Message>{{kMsgTransferStart, 0, kImageChunkBytes},
                                                      {kMsgTransferStep, 2048, 0},
                                                      {kMsgTransferStep, 4096, 0},
                                                      {kMsgTransferStep, 5000, 0},
                                                      {kMsgTransferEnd, 0, 0}}),
              window.m_arMessages);
    // Each chunk went out twice: once in the good download, once in the one refused at chunk 2.
    EXPECT_EQ(2, peer.Count("IM[0]=" + hex.substr(0, 4096) + "\r"));
    EXPECT_EQ(2, peer.Count("IM[1]=" + hex.substr(4096, 4096) + "\r"));
    EXPECT_EQ(2, peer.Count("IM[2]=" + hex.substr(8192) + "\r"));
    EXPECT_EQ(COM_BAD_DATA, bad.m_nErrorCode);
    EXPECT_EQ("Bad Data received from Controller", bad.FillMessage());
    EXPECT_EQ(COM_BAD_DATA, odd.m_nErrorCode);
    EXPECT_EQ("Error (4) :  'IM[2]=...' : " + link.GetDriveErrorText(4) + " !", refused.FillMessage());
    EXPECT_EQ(kSizeMismatchText, empty.FillMessage());
    link.Disconnect();
}

TEST(ProductMethods, VirtualDriveTakesChunksInOrderAndTheImageOnlyWhenComplete)
{
    sim::CSimDrive drive("Talvina");
    std::string whole = drive.Execute("IM").sValue;
    std::string changed = whole;
    changed[4] = changed[4] == '0' ? '1' : '0'; // the low byte of KP[1], after the two bytes of UM

    int outOfOrder = drive.Execute("IM[1]=" + whole).nErrorNumber;
    int beyond = drive.Execute("IM[1]").nErrorNumber;
    int tooShort = drive.Execute("IM[0]=" + changed.substr(0, 10)).nErrorNumber;
    std::string unchanged = drive.Execute("IM[0]").sValue;
    int ok = drive.Execute("IM[0]=" + changed).nErrorNumber;

    EXPECT_EQ(3, outOfOrder);
    EXPECT_EQ(3, beyond);
    EXPECT_EQ(4, tooShort);
    EXPECT_EQ(whole, unchanged);
    EXPECT_EQ(0, ok);
    EXPECT_EQ(changed, drive.Execute("IM[0]").sValue);
}

} // namespace
} // namespace tessitor
