// The parameter file: its grammar (read) and its text (write).
#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <istream>

#include "avs_calib_core.h"

namespace zqavs_calib_core {

namespace {

// Tokens end at every blank, so "label  5" has an empty second token.
std::string token(const std::string& line, int index)
{
    size_t start = 0;
    for (int k = 0; k < index; ++k) {
        const size_t blank = line.find(' ', start);
        if (blank == std::string::npos) return std::string();
        start = blank + 1;
    }
    return line.substr(start, line.find(' ', start) - start);
}

bool startsWithComment(const std::string& line)
{
    return !line.empty() && line[0] == '#';
}

// Counts a camera cannot hold are not read block by block (the loader refuses such a camera),
// so a wild count cannot make the reader run on for billions of lines.
int blocksToRead(int count)
{
    return std::min(count, kMaxBlocksPerCamera);
}

class ParamsReader {
public:
    ParamsReader(std::istream& in, PSR_INITPARAMS_T* layout, const ParamsDiagnostics& diagnose)
        : in_(in), layout_(*layout), diagnose_(diagnose)
    {
    }

    ParamsSections read()
    {
        std::string line;
        while (nextLine(&line)) {
            // A section-starting line that ends the file without a line break is not processed.
            if (in_.eof()) {
                report(ParamsDiagnostic::Warning, line_, "the last line has no line break and is not read");
                break;
            }
            if (startsWithComment(line)) continue;
            const std::string label = token(line, 0);
            const std::string header = format("camera_%zu:", sections_.cameraLines.size());
            if (label == header) {
                readCamera(line);
                continue;
            }
            if (label.rfind("camera_", 0) == 0)
                report(ParamsDiagnostic::Error, line_,
                       format("'%s' where '%s' was expected: cameras must come in order; this line starts a global "
                              "section and overwrites the sizes",
                              label.c_str(), header.c_str()));
            readGlobal(line);
        }
        return sections_;
    }

private:
    bool nextLine(std::string* line)
    {
        if (!std::getline(in_, *line)) return false;
        ++line_;
        return true;
    }

    void report(ParamsDiagnostic::Severity severity, int line, const std::string& message)
    {
        if (diagnose_) diagnose_({severity, line, message});
    }

    static std::string sectionName(int camera)
    {
        return camera < 0 ? std::string("the global section") : format("camera_%d:", camera);
    }

    // The value of a line is its second token through atoi.
    int value(const std::string& line, const char* what)
    {
        const std::string text = token(line, 1);
        const bool numeric = !text.empty() && (isdigit(static_cast<unsigned char>(text[0])) || text[0] == '-' ||
                                               text[0] == '+');
        if (!numeric)
            report(ParamsDiagnostic::Warning, line_, format("'%s' has no number after a single blank: it reads as 0", what));
        return atoi(text.c_str());
    }

    // Lines inside a section are data whatever they hold; past the end of the file they read as 0.
    int dataLine(const char* what, int camera)
    {
        std::string line;
        if (!nextLine(&line)) {
            report(ParamsDiagnostic::Error, line_,
                   format("the file ends inside %s: '%s' reads as 0", sectionName(camera).c_str(), what));
            return 0;
        }
        if (startsWithComment(line))
            report(ParamsDiagnostic::Error, line_,
                   format("comment line inside %s is read as the value of '%s'", sectionName(camera).c_str(), what));
        return value(line, what);
    }

    void readCamera(const std::string& header)
    {
        const int index = static_cast<int>(sections_.cameraLines.size());
        const int headerLine = line_;
        sections_.cameraLines.push_back(headerLine);
        layout_.image_block_num.push_back(value(header, "block count"));
        zqPSR_NONOVERLAP_BLOCK nonoverlap;
        zqPSR_OVERLAP_BLOCK overlap;
        nonoverlap.nonoverlap_num = dataLine("nonoverlap_num", index);
        overlap.overlap_num = dataLine("overlap_num", index);
        const int n = nonoverlap.nonoverlap_num, o = overlap.overlap_num;
        if (n < 0 || o < 0 || n > kMaxBlocksPerCamera || o > kMaxBlocksPerCamera)
            report(ParamsDiagnostic::Error, headerLine,
                   format("camera_%d: block counts %d + %d are not plausible: at most %d blocks of each kind are read",
                          index, n, o, kMaxBlocksPerCamera));
        for (int b = 0; b < blocksToRead(n); ++b) {
            nonoverlap.dst_startx.push_back(dataLine("dst_startx", index));
            nonoverlap.dst_width.push_back(dataLine("dst_width", index));
            nonoverlap.mesh_width.push_back(dataLine("mesh_width", index));
            nonoverlap.mesh_height.push_back(dataLine("mesh_height", index));
        }
        for (int b = 0; b < blocksToRead(o); ++b) {
            overlap.band_num.push_back(dataLine("band_num", index));
            overlap.dst_startx.push_back(dataLine("dst_startx", index));
            overlap.dst_width.push_back(dataLine("dst_width", index));
            overlap.mesh_width.push_back(dataLine("mesh_width", index));
            overlap.mesh_height.push_back(dataLine("mesh_height", index));
            overlap.alpha_width.push_back(dataLine("alpha_width", index));
            overlap.alpha_height.push_back(dataLine("alpha_height", index));
        }
        layout_.nonoverlap_block.push_back(nonoverlap);
        layout_.overlap_block.push_back(overlap);
    }

    // Six values; the section's first line is the one that started it.
    void readGlobal(const std::string& first)
    {
        if (++sections_.globalSections > 1)
            report(ParamsDiagnostic::Warning, line_, "a second global section: its values replace the first one's");
        layout_.src_width = value(first, "src_width");
        layout_.src_height = dataLine("src_height", -1);
        layout_.bld_width = dataLine("bld_width", -1);
        layout_.bld_height = dataLine("bld_height", -1);
        layout_.step_x = dataLine("step_x", -1);
        layout_.step_y = dataLine("step_y", -1);
    }

    std::istream& in_;
    PSR_INITPARAMS_T& layout_;
    const ParamsDiagnostics& diagnose_;
    ParamsSections sections_;
    int line_ = 0;  // lines read so far
};

void appendLine(std::string* text, const std::string& label, int value)
{
    *text += label + ' ' + std::to_string(value) + '\n';
}

}  // namespace

ParamsSections readParams(std::istream& in, PSR_INITPARAMS_T* layout, const ParamsDiagnostics& diagnose)
{
    return ParamsReader(in, layout, diagnose).read();
}

std::string paramsFileText(const PSR_INITPARAMS_T& layout)
{
    std::string text;
    appendLine(&text, "src_width", layout.src_width);
    appendLine(&text, "src_height", layout.src_height);
    appendLine(&text, "bld_width", layout.bld_width);
    appendLine(&text, "bld_height", layout.bld_height);
    appendLine(&text, "step_x", layout.step_x);
    appendLine(&text, "step_y", layout.step_y);
    for (int c = 0; c < layout.camera_num; ++c) {
        appendLine(&text, format("camera_%d:", c), layout.image_block_num[c]);
        appendLine(&text, "nonoverlap_num", layout.nonoverlap_block[c].nonoverlap_num);
        appendLine(&text, "overlap_num", layout.overlap_block[c].overlap_num);
        for (const BlockView& b : cameraBlocks(layout, c)) {
            if (b.overlap) appendLine(&text, "band_num", b.band_num);
            appendLine(&text, "dst_startx", b.dst_startx);
            appendLine(&text, "dst_width", b.dst_width);
            appendLine(&text, "mesh_width", b.mesh_width);
            appendLine(&text, "mesh_height", b.mesh_height);
            if (!b.overlap) continue;
            appendLine(&text, "alpha_width", b.alpha_width);
            appendLine(&text, "alpha_height", b.alpha_height);
        }
    }
    return text;
}

}  // namespace zqavs_calib_core
