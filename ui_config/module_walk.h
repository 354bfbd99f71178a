// The walk over the folders of modules and of packages.
#ifndef ZEM_UI_CONFIG_MODULE_WALK_H
#define ZEM_UI_CONFIG_MODULE_WALK_H

#include <functional>
#include <string>

namespace zem {

/// Calls `visit` with the path, from the root of the walk, and the name of each directory
/// and symbolic link in `folder`, in the file system's order, while the working directory
/// is that root. \param prefix "vemoman": the web root, where `folder` stands below
/// "webman"; else the folder of programs.
void WalkModules(
    const std::string& prefix, const char* folder,
    const std::function<void(const std::string& path, const std::string& name)>& visit);

}  // namespace zem

#endif  // ZEM_UI_CONFIG_MODULE_WALK_H
