#include "qzsse/contour/CPixelChain.h"

#include <cstdio>
#include <utility>

namespace qzsse::detail {
namespace {

CString& exportDirectory()
{
#ifdef _WIN32
    static CString directory = "c:\\Export\\PixelChain\\";
#else
    static CString directory = "Export/PixelChain/";
#endif
    return directory;
}

// The export is read by tools that expect a decimal comma, whatever the C locale.
void writeWithDecimalComma(std::FILE* file, char* line, int length)
{
    for (int i = 0; i < length; ++i)
        if (line[i] == '.')
            line[i] = ',';
    std::fwrite(line, 1, static_cast<size_t>(length), file);
}

} // namespace
} // namespace qzsse::detail

void CPixelChain::SetExportDirectory(CString directory) { qzsse::detail::exportDirectory() = std::move(directory); }

CString CPixelChain::GetExportDirectory() { return qzsse::detail::exportDirectory(); }

void CPixelChain::ExportPixelChain(CString name)
{
    using namespace qzsse::detail;
    const CString path = exportDirectory() + name + ".txt";
    // Text mode, created afresh: a previous export of the same name is replaced.
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file)
        return;
    std::fprintf(file, "Length: %d\n", m_iCount);
    std::fputs("Index\tXPos\tYPos\tValue\n", file);
    // Three ints and a float as %3.3f (at most 39 integer digits) fit well within this.
    char line[128];
    for (int i = 0; i < m_iCount; ++i) {
        const pixel& p = m_pPixels[i];
        const int length = std::snprintf(line, sizeof line, "%d\t%d\t%d\t%3.3f\n", i, p.x, p.y,
                                         static_cast<double>(p.value));
        if (length > 0 && length < static_cast<int>(sizeof line))
            writeWithDecimalComma(file, line, length);
    }
    std::fclose(file);
}
