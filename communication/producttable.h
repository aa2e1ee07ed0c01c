// Product identification: the product name a drive reports in its "VR"
// answer, mapped to its processor type ("DSP", "STP" or "BreNol") by the
// table in data/products.txt (24 rows, "name type" a line).
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace tessitor {

class CProductTable {
public:
    static CProductTable Load(const std::string& path);
    /// The table from the data folder, read once per process.
    static std::shared_ptr<const CProductTable> Default();

    /// Processor type of product (exact name), or "" when it is not listed.
    std::string ProcessorType(const std::string& product) const;
    const std::vector<std::pair<std::string, std::string>>& Rows() const { return m_arRows; }

private:
    std::vector<std::pair<std::string, std::string>> m_arRows;
};

} // namespace tessitor
