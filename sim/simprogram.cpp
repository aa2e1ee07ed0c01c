#include "sim/simprogram.h"

#include <cctype>
#include <cstdlib>

#include "sim/simcommand.h"

namespace tessitor::sim {

namespace {

bool IsLabel(const std::string& text)
{
    if (text.size() < 3 || text.compare(0, 2, "##") != 0)
        return false;
    for (std::size_t i = 2; i < text.size(); ++i)
        if (!std::isalnum(static_cast<unsigned char>(text[i])) && text[i] != '_')
            return false;
    return true;
}

std::string Upper(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

// A line of the program, classified.
struct Line {
    enum Kind { kEmpty, kLabel, kJump, kWait, kEnd, kCommand, kBad } eKind = kEmpty;
    std::string sArgument;
};

Line Classify(const std::string& raw)
{
    std::string text = TrimBlanks(raw);
    Line line;
    if (text.empty() || text[0] == '\'')
        return line;
    if (IsLabel(text))
        return {Line::kLabel, text};
    std::string upper = Upper(text);
    if (upper == "EN")
        return {Line::kEnd, {}};
    if (upper.compare(0, 2, "GO") == 0 && upper.size() > 2 && (upper[2] == ' ' || upper[2] == '#')) {
        std::string label = TrimBlanks(text.substr(2));
        return IsLabel(label) ? Line{Line::kJump, label} : Line{Line::kBad, {}};
    }
    if (upper.compare(0, 3, "WT=") == 0) {
        std::string ms = TrimBlanks(text.substr(3));
        if (ms.empty() || ms.size() > 7 || ms.find_first_not_of("0123456789") != std::string::npos)
            return {Line::kBad, {}};
        return {Line::kWait, ms};
    }
    // Commands that manage the program or the flash have no place in it.
    static const char* const kForbidden[] = {"DL", "LS", "CC", "XQ", "HX", "CP", "SV", "LD", "BH", "IM"};
    for (const char* word : kForbidden)
        if (upper.compare(0, 2, word) == 0 && (upper.size() == 2 || !std::isalpha(static_cast<unsigned char>(upper[2]))))
            return {Line::kBad, {}};
    return {Line::kCommand, text};
}

} // namespace

int CSimProgram::AddLine(const std::string& line)
{
    if (m_bRunning)
        return 11;
    for (char c : line)
        if (c == ';' || c == '?' || c == '\r' || c == '\n' || c == '\\' || static_cast<unsigned char>(c) < 0x20)
            if (c != '\t')
                return 14;
    std::size_t added = line.size() + (m_arLines.empty() ? 0 : 1);
    if (m_nBytes + added > kCapacity)
        return 15;
    m_arLines.push_back(line);
    m_nBytes += added;
    m_bCompiled = false;
    return 0;
}

int CSimProgram::Clear()
{
    if (m_bRunning)
        return 11;
    m_arLines.clear();
    m_nBytes = 0;
    m_bCompiled = false;
    m_nErrorLine = 0;
    return 0;
}

std::string CSimProgram::Listing() const
{
    std::string text;
    for (std::size_t i = 0; i < m_arLines.size(); ++i) {
        if (i)
            text += '\n';
        text += m_arLines[i];
    }
    return text;
}

int CSimProgram::FindLabel(const std::string& label) const
{
    for (std::size_t i = 0; i < m_arLines.size(); ++i)
        if (TrimBlanks(m_arLines[i]) == label)
            return static_cast<int>(i);
    return -1;
}

int CSimProgram::Compile(const CommandFn& check)
{
    if (m_bRunning)
        return 11;
    m_bCompiled = false;
    m_nErrorLine = 0;
    for (std::size_t i = 0; i < m_arLines.size(); ++i) {
        Line line = Classify(m_arLines[i]);
        int error = 0;
        if (line.eKind == Line::kBad)
            error = 14;
        else if (line.eKind == Line::kLabel && FindLabel(line.sArgument) != static_cast<int>(i))
            error = 14; // defined twice
        else if (line.eKind == Line::kJump && FindLabel(line.sArgument) < 0)
            error = 16;
        else if (line.eKind == Line::kCommand && check(line.sArgument) != 0)
            error = 14;
        if (error) {
            m_nErrorLine = static_cast<int>(i) + 1;
            return error;
        }
    }
    m_bCompiled = true;
    return 0;
}

int CSimProgram::Run()
{
    if (m_bRunning)
        return 11;
    if (!m_bCompiled)
        return 12;
    m_bRunning = true;
    m_nNext = 0;
    m_dWait = 0;
    m_nErrorLine = 0;
    return 0;
}

int CSimProgram::Tick(double dt, const CommandFn& execute)
{
    if (!m_bRunning)
        return 0;
    if (m_dWait > 0) {
        m_dWait -= dt;
        return 0;
    }
    // Skip lines that do nothing, so that one period runs one real line.
    while (m_nNext < m_arLines.size()) {
        Line line = Classify(m_arLines[m_nNext]);
        if (line.eKind != Line::kEmpty && line.eKind != Line::kLabel)
            break;
        ++m_nNext;
    }
    if (m_nNext >= m_arLines.size()) {
        m_bRunning = false;
        return 0;
    }
    std::size_t current = m_nNext++;
    Line line = Classify(m_arLines[current]);
    switch (line.eKind) {
    case Line::kEnd:
        m_bRunning = false;
        break;
    case Line::kJump:
        m_nNext = static_cast<std::size_t>(FindLabel(line.sArgument));
        break;
    case Line::kWait:
        m_dWait = std::atoi(line.sArgument.c_str()) / 1000.0;
        break;
    case Line::kCommand:
        if (int error = execute(line.sArgument)) {
            m_bRunning = false;
            m_nErrorLine = static_cast<int>(current) + 1;
            return error;
        }
        break;
    default:
        break;
    }
    return 0;
}

} // namespace tessitor::sim
