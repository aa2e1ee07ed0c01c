// The version database as the virtual drive reads it (data/versions.txt):
// per drive version, the parameter list with index ranges, type codes,
// number formats, limits, defaults and access, in parameter-image order.
// The file's format is described at its top.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace tessitor::sim {

/// One element of a parameter list: one mnemonic at one index.
struct SimParamDef {
    std::string sMnemonic;     ///< two upper-case letters
    bool bIndexed = false;     ///< written "XX[n]"; false: plain "XX"
    int nIndex = 0;            ///< the index when bIndexed
    int nType = 0;             ///< image type code: 0, 1, 2, 3, 4, 8 or 16
    int nFormat = 1;           ///< 1 integer, 2 floating point
    double dMin = 0;
    double dMax = 0;
    double dDefault = 0;
    bool bRead = false;        ///< may be queried
    bool bWrite = false;       ///< may be assigned
    bool bMotorOff = false;    ///< assignment needs the motor off
    bool bSaved = false;       ///< part of the parameter image (SV, LD)
    std::string sDescription;

    /// True when the value is a floating-point number on the wire and in the image.
    bool IsFloat() const;
    /// Size of the element in the parameter image, in bytes.
    int ImageSize() const;
};

/// One parameter list and the drive versions that carry it.
struct SimParamList {
    std::string sName;
    std::vector<std::string> arVersions; ///< "<product> a.b.c.d"
    bool bWordSwap = false;
    std::vector<SimParamDef> arParams;  ///< in image order
};

class CSimVersionDb {
public:
    /// Reads path; throws std::runtime_error naming the file and line on a
    /// malformed file or one that cannot be read.
    static CSimVersionDb Load(const std::string& path);
    /// The database of the data folder, read once per path and process.
    static std::shared_ptr<const CSimVersionDb> Default();

    /// The list that carries version ("<product> a.b.c.d") exactly, or null.
    const SimParamList* FindVersion(const std::string& version) const;
    /// The newest version listed for product ("" when there is none).
    std::string NewestVersion(const std::string& product) const;
    /// True when some list has mnemonic (so the drive language knows it).
    bool KnowsMnemonic(const std::string& mnemonic) const;
    const std::vector<SimParamList>& Lists() const { return m_arLists; }

private:
    std::vector<SimParamList> m_arLists;
};

/// The product table (data/products.txt): product name to family.
class CSimProducts {
public:
    /// Reads path; throws std::runtime_error when it cannot be read.
    static CSimProducts Load(const std::string& path);
    /// The table of the data folder, read once per path and process.
    static std::shared_ptr<const CSimProducts> Default();

    /// "DSP", "STP", "BreNol", or "" for a product not listed.
    std::string Family(const std::string& product) const;
    /// The product names, in file order.
    std::vector<std::string> Names() const;

private:
    std::vector<std::pair<std::string, std::string>> m_arRows;
};

} // namespace tessitor::sim
