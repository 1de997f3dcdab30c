#include "agent/plugins.h"

#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>

#include <iostream>

void loadPlugins(std::string const& dir) {
    // The length limit stops endless recursion through a symbolic link
    // that points back at an ancestor.
    if (dir.size() > 128) {
        std::cerr << "Refusing to search for snmp plugins in following directory, because it's path is longer "
                     "than 128 characters (recursive symlink?):\n"
                  << dir << std::endl;
        return;
    }
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.empty() || name[0] == '.') continue;
        std::string path = dir + "/" + name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0) break;  // the rest of this folder is not visited
        if (S_ISDIR(st.st_mode)) {
            loadPlugins(path);
        } else if (S_ISREG(st.st_mode) && name.size() >= 4 && name.compare(name.size() - 3, 3, ".so") == 0) {
            void* lib = dlopen(path.c_str(), RTLD_NOW);
            if (!lib) {
                char const* why = dlerror();
                std::cerr << "failed dlopen: " << path << ":\n" << (why ? why : "") << std::endl;
                continue;
            }
            std::cerr << "plugin loaded: " << path << std::endl;
            void* sym = dlsym(lib, "autorun");
            if (sym) {
                reinterpret_cast<void (*)()>(sym)();
            } else {
                std::cerr << "plugin " << path << " has no symbol autorun" << std::endl;
            }
        }
    }
    closedir(d);
}
