// tessitor app show: what an application file holds, its parameter image
// decoded through the version database.
#include <cstdio>
#include <stdexcept>

#include "applicationeditor/datfile.h"
#include "applicationeditor/productmethods.h"
#include "applicationeditor/versiondb.h"
#include "core/strformat.h"
#include "ui/cli/clicontext.h"

namespace tessitor::cli {

namespace {

// Bytes a terminal or a script would choke on (the NUL of an empty name
// character, 8-bit codes) as \xHH.
std::string Printable(const std::string& text)
{
    std::string out;
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (u < 0x20 || u >= 0x7F)
            out += StrFormat("\\x%02X", u);
        else
            out += c;
    }
    return out;
}

std::string JsonString(const std::string& text)
{
    std::string out = "\"";
    for (char c : text) {
        auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\')
            out += std::string("\\") + c;
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else if (c == '\t')
            out += "\\t";
        else if (u < 0x20 || u >= 0x7F)
            out += StrFormat("\\u%04x", u); // the byte's code, as the drive counts characters
        else
            out += c;
    }
    return out + "\"";
}

struct ShownParameter {
    const CControlItem* pItem;
    std::string sText;
};

int ShowApplication(const std::string& path, bool json)
{
    CDatFile file(path);
    std::string version = file.GetVersionString();
    CCommunicationInfo info = file.GetCommunicationInfo();
    std::string connection = info.m_sCommType.empty() ? std::string() : info.GetDisplayText();
    std::string program = file.GetUserProgram();

    std::string problem;
    std::vector<ShownParameter> parameters;
    std::shared_ptr<const CVersionDb> db;
    try {
        db = CVersionDb::Default();
    } catch (const std::runtime_error& e) {
        problem = std::string("The version database cannot be read: ") + e.what();
    }
    const VersionLayout* layout = db ? db->Find(version) : nullptr;
    if (db && !layout)
        problem = "The version database has no parameter layout for the version \"" + version + "\".";
    std::vector<std::uint8_t> image;
    if (layout)
        problem = layout->ImageFromText(file.GetParams(), image);
    if (problem.empty()) {
        std::size_t offset = 0;
        for (const CControlItem& item : layout->arItems) {
            parameters.push_back({&item, item.GetText(image.data() + offset, layout->bWordSwap)});
            offset += static_cast<std::size_t>(item.GetSize());
        }
    }

    std::vector<std::string> lines = CProductMethods::SplitProgramLines(program);
    if (json) {
        std::string listing; // as the drive lists it: lines separated by LF
        for (std::size_t i = 0; i < lines.size(); ++i)
            listing += (i ? "\n" : "") + lines[i];
        std::printf("{\n  \"version\": %s,\n  \"connection\": {\"type\": %s, \"text\": %s},\n  \"program\": %s,\n",
                    JsonString(version).c_str(), JsonString(info.m_sCommType).c_str(), JsonString(connection).c_str(),
                    JsonString(listing).c_str());
        std::printf("  \"layout\": %s,\n  \"parameters\": [", layout ? JsonString(layout->sName).c_str() : "null");
        for (std::size_t i = 0; i < parameters.size(); ++i) {
            const CControlItem& item = *parameters[i].pItem;
            std::printf("%s\n    {\"name\": %s, \"mnemonic\": %s, \"index\": %s, \"value\": %s}", i ? "," : "",
                        JsonString(item.GetName()).c_str(), JsonString(item.m_sMnemonic).c_str(),
                        item.m_bIndexed ? std::to_string(item.m_nIndex).c_str() : "null",
                        JsonString(parameters[i].sText).c_str());
        }
        std::printf("%s]\n}\n", parameters.empty() ? "" : "\n  ");
    } else {
        std::printf("version: %s\n", version.c_str());
        std::printf("connection: %s\n", connection.empty() ? "none" : connection.c_str());
        std::printf("program: %zu line%s\n", lines.size(), lines.size() == 1 ? "" : "s");
        for (const std::string& line : lines)
            std::printf("    %s\n", Printable(line).c_str());
        if (problem.empty())
            std::printf("parameters: %zu (%s, %zu bytes)\n", parameters.size(), layout->sName.c_str(),
                        layout->ImageSize());
        for (const ShownParameter& p : parameters)
            std::printf("%s = %s\n", p.pItem->GetName().c_str(), Printable(p.sText).c_str());
    }
    std::fflush(stdout);
    if (!problem.empty()) {
        std::fprintf(stderr, "%s\n", problem.c_str());
        return 1;
    }
    return 0;
}

} // namespace

void RegisterAppCommand(CLI::App& app, CCliContext& context)
{
    CLI::App* sub = app.add_subcommand("app", "Application files: a drive's parameters, program and connection");
    sub->require_subcommand(1);

    struct ShowOptions {
        std::string sPath;
        bool bJson = false;
    };
    auto show = std::make_shared<ShowOptions>();
    CLI::App* showCmd = sub->add_subcommand("show", "Print what an application file (.dat) holds");
    showCmd->add_option("FILE", show->sPath, "The application file")->required()->check(CLI::ExistingFile);
    showCmd->add_flag("--json", show->bJson, "One JSON object instead of text");
    showCmd->footer("Prints the version, the connection, the user program (each line indented) and every\n"
                    "parameter of the image as 'MNEMONIC[INDEX] = value', decoded through the version\n"
                    "database in the image's order; a character parameter that is not printable shows as\n"
                    "\\xHH. Exit status 1 when the version has no layout in the database or the image does\n"
                    "not fit it (\"Size of this DAT file mismatch of the Version.\"); what could be read is\n"
                    "printed all the same.\n\n"
                    "Examples:\n  tessitor app show drive.dat\n  tessitor app show drive.dat --json");
    context.SetAction(showCmd, [show] { return ShowApplication(show->sPath, show->bJson); }, CommandUse::kNothing);
}

} // namespace tessitor::cli
