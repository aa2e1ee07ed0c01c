#include "applicationeditor/appconverter.h"

#include <algorithm>
#include <stdexcept>

#include "applicationeditor/appversion.h"
#include "applicationeditor/productmethods.h"
#include "core/strformat.h"

namespace tessitor {

CAppConverter::CAppConverter(std::shared_ptr<const CVersionDb> db) : m_pDb(db ? std::move(db) : CVersionDb::Default())
{
}

const VersionLayout& CAppConverter::Layout(const std::string& version) const
{
    const VersionLayout* layout = m_pDb->Find(version);
    if (!layout)
        throw std::runtime_error("The version database has no parameter layout for the version \"" + version + "\".");
    return *layout;
}

CAppConverter::Report CAppConverter::Convert(const CDatFile& source, const std::string& targetVersion, CDatFile& target,
                                             bool bHoldToLimits) const
{
    const std::string sourceVersion = source.GetVersionString();
    if (CAppVersion(sourceVersion).GetProduct() != CAppVersion(targetVersion).GetProduct())
        throw std::runtime_error(StrFormat("Incompatible products:\nDriver - %s\nFile   - %s", targetVersion.c_str(),
                                           sourceVersion.c_str()));
    const VersionLayout& from = Layout(sourceVersion);
    const VersionLayout& to = Layout(targetVersion);
    std::vector<std::uint8_t> old;
    if (std::string problem = from.ImageFromText(source.GetParams(), old); !problem.empty())
        throw std::runtime_error(problem);

    // Old values by name, in the old image's order.
    std::vector<std::pair<std::string, double>> values;
    std::vector<std::string> texts;
    std::size_t offset = 0;
    for (const CControlItem& item : from.arItems) {
        values.emplace_back(item.GetName(), item.GetValue(old.data() + offset, from.bWordSwap));
        texts.push_back(Escaped(item.GetText(old.data() + offset, from.bWordSwap)));
        offset += static_cast<std::size_t>(item.GetSize());
    }

    Report report;
    std::vector<bool> used(values.size(), false);
    std::vector<std::uint8_t> image(to.ImageSize());
    offset = 0;
    for (const CControlItem& item : to.arItems) {
        std::uint8_t* element = image.data() + offset;
        offset += static_cast<std::size_t>(item.GetSize());
        std::string name = item.GetName();
        auto found = std::find_if(values.begin(), values.end(), [&](const auto& v) { return v.first == name; });
        if (found == values.end()) {
            item.SetValue(item.m_dDefault, element, to.bWordSwap);
            report.arAdded.push_back(name + " = " + Escaped(item.GetText(element, to.bWordSwap)) + " (new, its default)");
            continue;
        }
        std::size_t at = static_cast<std::size_t>(found - values.begin());
        used[at] = true;
        double value = found->second;
        if (item.IsWithinLimits(value)) {
            item.SetValue(value, element, to.bWordSwap);
            continue;
        }
        double kept = bHoldToLimits ? std::clamp(value, item.m_dMin, item.m_dMax) : item.m_dDefault;
        item.SetValue(kept, element, to.bWordSwap);
        report.arChanged.push_back(StrFormat("%s: %s is outside %g..%g, set to %s %s", name.c_str(), texts[at].c_str(),
                                             item.m_dMin, item.m_dMax, bHoldToLimits ? "the limit" : "its default",
                                             item.GetText(element, to.bWordSwap).c_str()));
    }
    for (std::size_t i = 0; i < values.size(); ++i)
        if (!used[i])
            report.arDropped.push_back(values[i].first + " = " + texts[i] + " (dropped)");

    target.RemoveAll();
    for (const auto& group : source.Groups())
        for (const auto& field : group->Fields())
            target.SetValue(group->GetName(), field->m_sName, field->m_sValue);
    // The program as the drive lists it: a file read joins its lines with
    // "\n\r", which written again would pile up carriage returns.
    if (std::string program = source.GetUserProgram(); !program.empty()) {
        std::string listing;
        for (const std::string& line : CProductMethods::SplitProgramLines(program))
            listing += (listing.empty() ? "" : "\n") + line;
        target.SetUserProgram(listing);
    }
    target.SetVersionString(targetVersion);
    target.SetParams(CDatFile::EncodeParams(image));
    return report;
}

std::string CAppConverter::OutputPath(const std::string& input, const std::string& targetVersion)
{
    std::size_t slash = input.find_last_of('/');
    std::size_t dot = input.find_last_of('.');
    std::string stem = dot == std::string::npos || (slash != std::string::npos && dot < slash) ? input
                                                                                                 : input.substr(0, dot);
    CAppVersion version(targetVersion);
    std::string suffix = version.GetNumber(3) >= 0
        ? StrFormat("%d.%d.%d.%d", version.GetNumber(0), version.GetNumber(1), version.GetNumber(2), version.GetNumber(3))
        : std::string("converted");
    return stem + "-" + suffix + ".dat";
}

} // namespace tessitor
