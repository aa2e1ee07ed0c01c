// Fuzzes the application file reader with whatever a file may hold, then
// what the rest of the program does with a file it read: the connection
// fields, the parameter image decoded against every layout, and writing it
// back and reading that again.
#include <cstdint>
#include <sstream>
#include <string>

#include "applicationeditor/datfile.h"
#include "applicationeditor/versiondb.h"

namespace {

// Loads text into file; the file's own path never exists, so nothing is saved.
void Load(tessitor::CDatFile& file, const std::string& text)
{
    std::istringstream in(text);
    file.LoadFrom(in);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const auto db = tessitor::CVersionDb::Default();
    tessitor::CDatFile file("/nonexistent/tessitor-fuzz.dat");
    Load(file, std::string(reinterpret_cast<const char*>(data), size));
    (void)file.GetCommunicationInfo().GetDisplayText();
    std::vector<std::uint8_t> image;
    for (const tessitor::VersionLayout& layout : db->Layouts())
        if (layout.ImageFromText(file.GetParams(), image).empty() && image.size() != layout.ImageSize())
            __builtin_trap(); // a text taken must give exactly the image's size
    if (tessitor::CDatFile::DecodeParams(file.GetParams(), image, 16) == 1 && image.size() > 17)
        __builtin_trap(); // never more than capacity + 1 bytes

    tessitor::CDatFile again("/nonexistent/tessitor-fuzz-again.dat");
    Load(again, file.FileText());
    again.Update(false); // the missing file clears modified: the destructors write nothing
    file.Update(false);
    return 0;
}
