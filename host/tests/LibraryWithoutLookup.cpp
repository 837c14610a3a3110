// A plug-in library with a start entry point but no lookup entry point: nphost must refuse it
// before it makes an object, since it could not answer a single lookup through it.
namespace BAS {
class String;
}
namespace PLG {
class DataPlugIn;
}

extern "C" __attribute__((visibility("default"))) PLG::DataPlugIn* LibraryWithoutLookupModuleStart(const BAS::String&) {
  return nullptr;
}
