// brenthaven/platform/sharedlibrary.h - a shared library that is loaded on first use, so that a run which never needs
// it does not pay for its loading.
#pragma once

// Loads in the constructor and stays loaded until the process ends, since libraries leave threads and thread data
// behind. Make it a function-local static.
class SSharedLibrary {
public:
  // A name as the loader takes it, with the version of its interface: "libpam.so.0".
  explicit SSharedLibrary(char const *name);

  bool IsLoaded() const { return _handle != nullptr; }
  // A function of the library by its declaration in the library's own header, which fixes the type:
  //   auto *const bind = library.Find<decltype(ldap_sasl_bind_s)>("ldap_sasl_bind_s");
  // Null when the library is not there or has none of that name.
  template <class Function>
  Function *Find(char const *name) const {
    return reinterpret_cast<Function *>(_Find(name));
  }

private:
  void *_Find(char const *name) const;

  void *_handle;
};
