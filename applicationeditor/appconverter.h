// Converting an application file from the parameter layout of its version
// to that of another version of the same product, through the version
// database: parameters are matched by mnemonic and index and their values
// carried over and checked against the new limits; parameters the new
// version adds get their defaults, those it no longer has are dropped. The
// other groups and fields of the file (connection, user program, any
// extra ones) are copied as they stand. Used by tessitor-convert.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "applicationeditor/datfile.h"
#include "applicationeditor/versiondb.h"

namespace tessitor {

class CAppConverter {
public:
    /// What a conversion changed beyond carrying values over, one line a
    /// parameter ("KP[3]: 20000.000 is outside 0.000..10000.000, set to its default 100.000").
    struct Report {
        std::vector<std::string> arAdded;   ///< new in the target, at their defaults
        std::vector<std::string> arDropped; ///< not in the target, with their old values
        std::vector<std::string> arChanged; ///< outside the target's limits: reset or held to a limit
    };

    /// db: the version database to convert through (default: the data folder's).
    explicit CAppConverter(std::shared_ptr<const CVersionDb> db = nullptr);

    /// Fills target (emptied first) with source converted to targetVersion.
    /// A value outside the target's limits gets the target's default, or,
    /// with bHoldToLimits (the advanced conversion), the nearest limit.
    /// Throws std::runtime_error with the reason in the user's words when a
    /// version has no layout, the products differ or the image does not fit.
    Report Convert(const CDatFile& source, const std::string& targetVersion, CDatFile& target,
                   bool bHoldToLimits = false) const;

    /// Where the converter writes its result: beside input, named after it
    /// and the target's numbers ("drive.dat" to "drive-2.0.0.0.dat").
    static std::string OutputPath(const std::string& input, const std::string& targetVersion);

private:
    const VersionLayout& Layout(const std::string& version) const;

    std::shared_ptr<const CVersionDb> m_pDb;
};

} // namespace tessitor
