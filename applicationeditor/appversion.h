// The version string of a drive or an application file: a product name, a
// blank and four dot-separated numbers ("Talvina 2.1.0.0"). Only the
// product and the first two numbers decide whether an application fits a
// drive; the third and fourth never change the parameter layout.
#pragma once

#include <array>
#include <string>

namespace tessitor {

class CAppVersion {
public:
    /// Parses text with "%64s %d.%d.%d.%d"; numbers not read stay -1.
    explicit CAppVersion(const std::string& text);

    /// True when all four numbers were read and the version is not 1.0.x.x:
    /// such a drive or file takes the parameter image in one binary block.
    bool IsBinaryCapable() const;

    const std::string& GetProduct() const { return m_sProduct; }
    /// Number i (0..3), -1 when it was not read.
    int GetNumber(int i) const { return m_anNumbers[static_cast<std::size_t>(i)]; }

private:
    std::string m_sProduct;
    std::array<int, 4> m_anNumbers{-1, -1, -1, -1};
    int m_nFieldsRead = 0;
};

} // namespace tessitor
