#include <gtest/gtest.h>

#include "communication/communicationinfo.h"

using namespace tessitor;

namespace {

CCommunicationInfo Serial(std::uint8_t port, std::uint32_t baud)
{
    CCommunicationInfo info;
    info.m_sCommType = "RS_232";
    info.nPort = port;
    info.wBaudRate = baud;
    return info;
}

} // namespace

TEST(CommunicationInfo, ValidateReplacesOnlyWhatIsOutOfRange)
{
    CCommunicationInfo info;
    info.m_sCommType = "";
    info.nPort = 0;
    info.wBaudRate = 2400;
    info.bParity = 5;
    info.bByteSize = 7;
    info.bStopBits = 2;
    info.bFlowCtrl = 3;
    info.sManufacture = "";
    info.sBoardType = "";
    info.mNodeID = 128;
    info.mCanNr = 2;
    info.mBaudRateIndex = 8;
    info.w_irq1 = 16;
    info.w_address1 = 0x300;
    info.abIP = {10, 0, 0, 1};

    info.Validate();

    EXPECT_EQ(info.m_sCommType, "RS_232");
    EXPECT_EQ(info.nPort, 0) << "only ports 9 and above are replaced";
    EXPECT_EQ(info.wBaudRate, 19200u);
    EXPECT_EQ(info.bParity, 0);
    EXPECT_EQ(info.bByteSize, 8);
    EXPECT_EQ(info.bStopBits, 0);
    EXPECT_EQ(info.bFlowCtrl, 0);
    EXPECT_EQ(info.sManufacture, "IXXAT");
    EXPECT_EQ(info.sBoardType, "iPC-I 386");
    EXPECT_EQ(info.mNodeID, 1);
    EXPECT_EQ(info.mCanNr, 0);
    EXPECT_EQ(info.mBaudRateIndex, 6) << "800 kbit/s has a text but is still replaced";
    EXPECT_EQ(info.w_irq1, 0);
    EXPECT_EQ(info.w_address1, 0);
    EXPECT_EQ(info.abIP, (std::array<std::uint8_t, 4>{0, 0, 0, 0}));

    CCommunicationInfo kept = Serial(9, 115200);
    kept.Validate();
    EXPECT_EQ(kept.nPort, 1);
    EXPECT_EQ(kept.wBaudRate, 115200u);
}

TEST(CommunicationInfo, EqualityComparesOnlyTheFieldsOfItsKind)
{
    CCommunicationInfo a = Serial(3, 57600), b = Serial(3, 57600);
    b.mNodeID = 99;
    b.sDesc = "other";
    EXPECT_TRUE(a.IsEqual(b));
    b.bParity = 2;
    EXPECT_FALSE(a.IsEqual(b));

    CCommunicationInfo empty;
    empty.m_sCommType = "";
    EXPECT_FALSE(empty.IsEqual(empty)) << "an empty type never equals";

    CCommunicationInfo can1, can2;
    can1.m_sCommType = can2.m_sCommType = "CAN";
    can2.nPort = 7;
    EXPECT_TRUE(can1.IsEqual(can2));
    can2.w_address1 = 1;
    EXPECT_FALSE(can1.IsEqual(can2));

    CCommunicationInfo tcp1, tcp2;
    tcp1.m_sCommType = tcp2.m_sCommType = "TCP";
    tcp1.abIP = tcp2.abIP = {192, 168, 1, 5};
    tcp1.sDesc = tcp2.sDesc = "RS232 Port 1";
    EXPECT_TRUE(tcp1.IsEqual(tcp2));
    tcp2.nType = 1;
    EXPECT_FALSE(tcp1.IsEqual(tcp2));
    EXPECT_FALSE(tcp1.IsEqual(Serial(1, 19200)));
}

TEST(CommunicationInfo, DisplayTextsAndShortNamesAppendedOnce)
{
    CCommunicationInfo serial = Serial(3, 115200);
    serial.bParity = 2;
    EXPECT_EQ(serial.GetDisplayText(), "RS_232; COM3; 115200[bit/sec]; Parity Even");
    EXPECT_EQ(serial.GetShortName(), "_COM3");
    serial.SetNameWithShortName("Axis");
    serial.SetNameWithShortName(serial.m_sName);
    EXPECT_EQ(serial.m_sName, "Axis_COM3") << "the short name is appended once";

    CCommunicationInfo can;
    can.m_sCommType = "CAN";
    can.mCanNr = 1;
    can.mNodeID = 12;
    can.mBaudRateIndex = 7;
    EXPECT_EQ(can.GetDisplayText(), "CAN 1; iPC-I 386; ID 12; 1000[Kbit/sec]");
    EXPECT_EQ(can.GetShortName(), "_CAN_ID12");

    CCommunicationInfo tcp;
    tcp.m_sCommType = "TCP";
    tcp.abIP = {10, 0, 0, 200};
    tcp.sDesc = "CANopen Bus 2 NodeID 5";
    tcp.nType = 1;
    EXPECT_EQ(tcp.GetDisplayText(), "TCP/IP 10.0.0.200 CANopen Bus 2 NodeID 5");
    EXPECT_EQ(tcp.GetShortName(), "_canb2n5");
    tcp.sDesc = "RS232 Port 4";
    tcp.nType = 0;
    EXPECT_EQ(tcp.GetShortName(), "_rs4");

    CCommunicationInfo kmas;
    kmas.m_sCommType = "TCP_KMAS";
    kmas.sDesc = "gateway";
    kmas.mNodeID = 3;
    EXPECT_EQ(kmas.GetDisplayText(), "TCP/IP gateway CAN NodeID 3;");
    EXPECT_EQ(kmas.GetShortName(), "");

    CCommunicationInfo rs485 = Serial(2, 9600);
    rs485.m_sCommType = "RS_485";
    EXPECT_EQ(rs485.GetShortName(), "_RS485");
}

TEST(CommunicationInfo, OneLineFormRoundTripsEveryField)
{
    CCommunicationInfo info;
    info.m_sCommType = "CAN";
    info.nPort = 4;
    info.wBaudRate = 57600;
    info.bParity = 1;
    info.mNodeID = 33;
    info.sManufacture = "Some Maker";
    info.sBoardType = "USB to CAN v2";
    info.mCanNr = 1;
    info.mBaudRateIndex = 5;
    info.w_irq1 = 3;
    info.w_address1 = 0x1234;
    info.abIP = {10, 1, 2, 3};
    info.sDesc = "";
    info.nType = 1;

    std::string line = info.ToLine();
    EXPECT_EQ(line, "CAN ; COM: 4 ; 57600 ; 8 ; 1 ; 0 ; 0 ; CAN: 33 ; Some\x01Maker ; USB\x01to\x01"
                    "CAN\x01v2 ; 1 ; 5 ; 3 ; 4660 ; 10.1.2.3 ;  ; 1");
    // The line holds every field, so equal lines mean equal descriptors.
    CCommunicationInfo back;
    ASSERT_TRUE(back.FromLine(line));
    EXPECT_EQ(back.ToLine(), line);
    EXPECT_EQ(back.sManufacture, "Some Maker");
    EXPECT_EQ(back.sDesc, "");
    EXPECT_TRUE(back.IsEqual(info));
}

TEST(CommunicationInfo, GuidIsWrittenWhenPresentAndReadOnlyForItsAdapter)
{
    CCommunicationInfo info;
    info.m_sCommType = "CAN";
    info.sManufacture = "IXXAT_VCI3";
    info.guidDevice = {0xA1B2C3D4, 0x0102, 0xBEEF, {1, 2, 3, 4, 5, 6, 7, 0xFF}};

    std::string line = info.ToLine();
    EXPECT_NE(line.find("; A1B2C3D4-0102-BEEF-0102-0304050607FF"), std::string::npos) << line;
    CCommunicationInfo back;
    ASSERT_TRUE(back.FromLine(line));
    EXPECT_EQ(back.guidDevice, info.guidDevice);

    info.sManufacture = "SLCAN";
    ASSERT_TRUE(back.FromLine(info.ToLine()));
    EXPECT_EQ(back.guidDevice.Data1, 0u) << "only an IXXAT_VCI3 line carries a GUID to read";
}

TEST(CommunicationInfo, MalformedLinesAreRefusedAndChangeNothing)
{
    CCommunicationInfo info = Serial(2, 38400);
    const char* bad[] = {
        "",
        "RS_232",
        "RS_232 ; 1 ; 19200 ; 8 ; 0 ; 0 ; 0 ; CAN: 1 ; IXXAT ; iPC-I\x01" "386 ; 0 ; 6 ; 0 ; 0 ; 0.0.0.0 ;  ; 0",
        "RS_232 ; COM: x ; 19200 ; 8 ; 0 ; 0 ; 0 ; CAN: 1 ; IXXAT ; B ; 0 ; 6 ; 0 ; 0 ; 0.0.0.0 ;  ; 0",
        "RS_232 ; COM: 1 ; 19200 ; 8 ; 0 ; 0 ; 0 ; CAN: 1 ; IXXAT ; B ; 0 ; 6 ; 0 ; 0 ; 0.0.0 ;  ; 0",
    };
    for (const char* line : bad) {
        EXPECT_FALSE(info.FromLine(line)) << line;
        EXPECT_EQ(info.nPort, 2);
        EXPECT_EQ(info.wBaudRate, 38400u);
    }

    CCommunicationInfo legacy;
    ASSERT_TRUE(legacy.FromLine(
        "SerialSinglePeer ; COM: 5 ; 9600 ; 8 ; 0 ; 0 ; 0 ; CAN: 1 ; IXXAT ; B ; 0 ; 6 ; 0 ; 0 ; 0.0.0.0 ;  ; 0"));
    EXPECT_EQ(legacy.m_sCommType, "RS_232");
    EXPECT_EQ(legacy.nPort, 5);
}

TEST(CommunicationInfo, TextFieldsThatCouldNotBeReadBackEqualAreRefused)
{
    // Reproducers of the descriptor fuzz target: each line read, written
    // and read again must give the same descriptor, or be refused.
    const std::string head = "TCP ; COM: 1 ; 19200 ; 8 ; 0 ; 0 ; 0 ; CAN: 1 ; IXXAT ; ";
    const std::pair<std::string, std::string> bad[] = {
        {head + "B ; 0 ; 6 ; 0 ; 0 ; 10.0.0.2 ; RS232" + std::string(1, '\0') + "Port ; 0",
         "the target text holds the byte 0x00, which the one-line form cannot carry"},
        {head + "B\x1B[2J ; 0 ; 6 ; 0 ; 0 ; 10.0.0.2 ; T ; 0",
         "the adapter board holds the byte 0x1B, which the one-line form cannot carry"},
        {head + "B ; 0 ; 6 ; 0 ; 0 ; 10.0.0.2 ; " + std::string(128, 'T') + " ; 0",
         "the target text is longer than 127 characters"},
    };
    for (const auto& [line, error] : bad) {
        CCommunicationInfo info;
        std::string why;
        EXPECT_FALSE(info.FromLine(line, &why)) << line;
        EXPECT_EQ(why, error);
    }

    CCommunicationInfo typed; // as the command line fills it
    typed.sDesc = "RS232 Port 1;";
    EXPECT_EQ(typed.TextFieldError(), "the target text holds \";\", which the one-line form cannot carry");
    typed.sDesc = "RS232\x01Port 1";
    EXPECT_EQ(typed.TextFieldError(), "the target text holds the byte 0x01, which the one-line form cannot carry");

    CCommunicationInfo good;
    std::string line = head + "USB\x01Stick ; 0 ; 6 ; 0 ; 0 ; 10.0.0.2 ; RS232\x01Port\x01" "1 ; 0";
    ASSERT_TRUE(good.FromLine(line));
    CCommunicationInfo back;
    ASSERT_TRUE(back.FromLine(good.ToLine()));
    EXPECT_EQ(back.ToLine(), good.ToLine());
    EXPECT_EQ(back.sBoardType, "USB Stick");
    EXPECT_EQ(back.sDesc, "RS232 Port 1");
    EXPECT_TRUE(back.TextFieldError().empty());
}

TEST(CommunicationInfo, KeyedFormFillsTheFieldsOfItsType)
{
    CCommunicationInfo can;
    can.FromKeyedLine("StartFromZAS Type:CAN;Manufacturer:Kvaser;Baud_Rate:250;Channel:1;CAN_ID:17;");
    EXPECT_EQ(can.m_sCommType, "CAN");
    EXPECT_EQ(can.sManufacture, "Kvaser");
    EXPECT_EQ(can.mBaudRateIndex, 5);
    EXPECT_EQ(can.mCanNr, 1);
    EXPECT_EQ(can.mNodeID, 17);

    CCommunicationInfo odd;
    odd.FromKeyedLine("StartFromZAS:CAN;Baud_Rate:333;");
    EXPECT_EQ(odd.mBaudRateIndex, 0) << "an unknown bit rate gives index 0";

    CCommunicationInfo serial;
    serial.mNodeID = 9;
    serial.FromKeyedLine("StartFromZAS Type:RS_232;Port:COM4;Baud_Rate:57600;Parity:Odd;CAN_ID:3;");
    EXPECT_EQ(serial.m_sCommType, "RS_232");
    EXPECT_EQ(serial.nPort, 4);
    EXPECT_EQ(serial.wBaudRate, 57600u);
    EXPECT_EQ(serial.bParity, 1);
    EXPECT_EQ(serial.mNodeID, 9) << "a serial line takes no CAN fields";
}
