// Loads the shared library, closes it, and expects it to be there still.
#include <dlfcn.h>

#include <cstdio>

int main(int, char** arguments) {
    void* const library = dlopen(arguments[1], RTLD_NOW);
    if (library == nullptr) {
        fprintf(stderr, "%s\n", dlerror());
        return 1;
    }
    const auto text = reinterpret_cast<const char* (*)(int)>(dlsym(library, "QVResultText"));
    dlclose(library);
    if (text == nullptr || dlopen(arguments[1], RTLD_NOW | RTLD_NOLOAD) == nullptr) {
        fprintf(stderr, "the library was unloaded\n");
        return 1;
    }
    puts(text(0));
    return 0;
}
