#include "applicationeditor/appversion.h"

#include <cstdio>

namespace tessitor {

CAppVersion::CAppVersion(const std::string& text)
{
    char product[65] = {};
    int n[4] = {-1, -1, -1, -1};
    m_nFieldsRead = std::sscanf(text.c_str(), "%64s %d.%d.%d.%d", product, &n[0], &n[1], &n[2], &n[3]);
    if (m_nFieldsRead < 0)
        m_nFieldsRead = 0;
    m_sProduct = product;
    for (std::size_t i = 0; i < 4; ++i)
        m_anNumbers[i] = n[i];
}

bool CAppVersion::IsBinaryCapable() const
{
    return m_nFieldsRead == 5 && !(m_anNumbers[0] == 1 && m_anNumbers[1] < 1);
}

} // namespace tessitor
