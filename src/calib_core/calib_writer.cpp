// Writing a calibration directory all or nothing: every file goes into a staging directory
// beside the target first, and only a complete set is moved in.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "avs_calib_core.h"

namespace zqavs_calib_core {

namespace {

// A file to write, pointing at bytes its caller keeps alive.
struct FileView {
    std::string name;
    const void* data;
    size_t size;
};

std::string systemError(const std::string& what, const std::string& path)
{
    return what + " " + path + ": " + std::strerror(errno);
}

std::string withoutTrailingSlashes(std::string path)
{
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
}

std::string parentOf(const std::string& dir)
{
    const size_t slash = dir.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : dir.substr(0, slash);
}

std::string baseNameOf(const std::string& dir)
{
    const size_t slash = dir.rfind('/');
    return slash == std::string::npos ? dir : dir.substr(slash + 1);
}

std::string checkLayoutArrays(const PSR_INITPARAMS_T& layout)
{
    const size_t cameras = layout.camera_num > 0 ? static_cast<size_t>(layout.camera_num) : 0;
    if (layout.image_block_num.size() < cameras || layout.nonoverlap_block.size() < cameras ||
        layout.overlap_block.size() < cameras)
        return format("the layout describes fewer cameras than its camera_num %d", layout.camera_num);
    return std::string();
}

std::string checkMeshes(const PSR_INITPARAMS_T& layout, const std::vector<std::vector<BlockMesh>>& meshes)
{
    if (meshes.size() != static_cast<size_t>(layout.camera_num))
        return format("%zu cameras of meshes for a layout of %d cameras", meshes.size(), layout.camera_num);
    for (int c = 0; c < layout.camera_num; ++c) {
        const std::vector<BlockView> blocks = cameraBlocks(layout, c);
        if (static_cast<size_t>(layout.image_block_num[c]) != blocks.size())
            return format("camera %d declares %d blocks but lists %zu", c, layout.image_block_num[c], blocks.size());
        if (meshes[c].size() != blocks.size())
            return format("camera %d has %zu meshes for %zu blocks", c, meshes[c].size(), blocks.size());
        for (const BlockView& block : blocks) {
            const BlockMesh& mesh = meshes[c][block.position];
            const size_t nodes = static_cast<size_t>(block.mesh_width) * static_cast<size_t>(block.mesh_height);
            if (mesh.x.size() != nodes || mesh.y.size() != nodes)
                return format("camera %d block %d: %zu x and %zu y values for a mesh of %d x %d nodes", c,
                              block.position, mesh.x.size(), mesh.y.size(), block.mesh_width, block.mesh_height);
        }
    }
    return std::string();
}

std::string checkNames(const std::vector<FileView>& files)
{
    for (size_t i = 0; i < files.size(); ++i) {
        const std::string& name = files[i].name;
        if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos)
            return "'" + name + "' is not a plain file name";
        for (size_t j = 0; j < i; ++j)
            if (files[j].name == name) return "two files are named " + name;
    }
    return std::string();
}

std::vector<FileView> calibrationFiles(const std::string& params, const std::vector<std::vector<BlockMesh>>& meshes,
                                       const std::vector<AlphaMap>& alphas, const std::vector<NamedFile>& extraFiles)
{
    std::vector<FileView> files = {{kParamsFileName, params.data(), params.size()}};
    for (size_t c = 0; c < meshes.size(); ++c)
        for (size_t b = 0; b < meshes[c].size(); ++b) {
            const BlockMesh& mesh = meshes[c][b];
            const int camera = static_cast<int>(c), block = static_cast<int>(b);
            files.push_back({meshFileName('x', camera, block), mesh.x.data(), mesh.x.size() * sizeof(float)});
            files.push_back({meshFileName('y', camera, block), mesh.y.data(), mesh.y.size() * sizeof(float)});
        }
    for (const AlphaMap& alpha : alphas)
        files.push_back({alphaFileName(alpha.camera, alpha.next), alpha.bytes.data(), alpha.bytes.size()});
    for (const NamedFile& extra : extraFiles) files.push_back({extra.name, extra.bytes.data(), extra.bytes.size()});
    return files;
}

bool writeFile(const std::string& path, const FileView& file, std::string* error)
{
    FILE* out = std::fopen(path.c_str(), "wb");
    bool ok = out && (file.size == 0 || std::fwrite(file.data, 1, file.size, out) == file.size);
    if (out && std::fclose(out) != 0) ok = false;
    if (!ok) *error = systemError("cannot write", path);
    return ok;
}

bool exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool isDirectory(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The staging directory beside the target: "new" holds the files to move in, "old" the files
// of the same names that the target held, set aside until the new ones are all in place.
class StagedWrite {
public:
    explicit StagedWrite(const std::string& target) : target_(withoutTrailingSlashes(target)) {}
    ~StagedWrite() { removeStaging(); }

    bool run(const std::vector<FileView>& files, std::string* error)
    {
        if (!makeStaging(error)) return false;
        for (const FileView& file : files)
            if (!writeFile(newDir() + file.name, file, error)) return false;
        const bool created = !exists(target_);
        if (created && ::mkdir(target_.c_str(), 0755) != 0) {
            *error = systemError("cannot create", target_);
            return false;
        }
        for (const FileView& file : files)
            if (!moveIn(file.name, error)) {
                rollBack();
                if (created) ::rmdir(target_.c_str());
                return false;
            }
        return true;
    }

private:
    std::string newDir() const { return root_ + "/new/"; }
    std::string oldDir() const { return root_ + "/old/"; }
    std::string targetFile(const std::string& name) const { return target_ + "/" + name; }

    bool makeStaging(std::string* error)
    {
        std::string pattern = parentOf(target_) + "/." + baseNameOf(target_) + ".staging-XXXXXX";
        if (::mkdtemp(&pattern[0]) == nullptr) {
            *error = systemError("cannot create a staging directory beside", target_);
            return false;
        }
        root_ = pattern;
        if (::mkdir(newDir().c_str(), 0755) == 0 && ::mkdir(oldDir().c_str(), 0755) == 0) return true;
        *error = systemError("cannot create", newDir());
        return false;
    }

    bool moveIn(const std::string& name, std::string* error)
    {
        const std::string target = targetFile(name);
        // Directories are not set aside: moving a file onto one fails, and the set is refused.
        if (exists(target) && !isDirectory(target)) {
            if (::rename(target.c_str(), (oldDir() + name).c_str()) != 0) {
                *error = systemError("cannot replace", target);
                return false;
            }
            setAside_.push_back(name);
        }
        if (::rename((newDir() + name).c_str(), target.c_str()) != 0) {
            *error = systemError("cannot move a file into", target);
            return false;
        }
        moved_.push_back(name);
        return true;
    }

    void rollBack()
    {
        for (const std::string& name : moved_) ::rename(targetFile(name).c_str(), (newDir() + name).c_str());
        for (const std::string& name : setAside_) ::rename((oldDir() + name).c_str(), targetFile(name).c_str());
    }

    // Whatever is left: unmoved or rolled-back files, and the target's replaced ones.
    void removeStaging()
    {
        if (root_.empty()) return;
        for (const std::string& dir : {newDir(), oldDir()}) removeDirectory(dir);
        ::rmdir(root_.c_str());
    }

    static void removeDirectory(const std::string& dir)
    {
        if (DIR* listing = ::opendir(dir.c_str())) {
            while (const dirent* entry = ::readdir(listing))
                if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
                    ::unlink((dir + entry->d_name).c_str());
            ::closedir(listing);
        }
        ::rmdir(dir.c_str());
    }

    std::string target_, root_;
    std::vector<std::string> setAside_, moved_;
};

bool refuse(const std::string& problem, std::string* error)
{
    if (error) *error = problem;
    return false;
}

}  // namespace

bool writeCalibrationDir(const std::string& dir, const PSR_INITPARAMS_T& layout,
                         const std::vector<std::vector<BlockMesh>>& meshes, const std::vector<AlphaMap>& alphas,
                         const std::vector<NamedFile>& extraFiles, std::string* error)
{
    std::string problem = checkLayoutArrays(layout);
    if (problem.empty()) problem = findFileNameCollision(layout);
    if (problem.empty()) problem = checkMeshes(layout, meshes);
    if (!problem.empty()) return refuse(problem, error);
    const std::string params = paramsFileText(layout);
    const std::vector<FileView> files = calibrationFiles(params, meshes, alphas, extraFiles);
    problem = checkNames(files);
    if (!problem.empty()) return refuse(problem, error);
    std::string ignored;
    return StagedWrite(dir).run(files, error ? error : &ignored);
}

}  // namespace zqavs_calib_core
