#include "BAS/FailureText.h"

#include "BAS/CapacityExceeded.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <new>
#include <typeinfo>

namespace BAS {

namespace {

std::string typeName(const std::type_info& type) {
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> name(abi::__cxa_demangle(type.name(), nullptr, nullptr, &status),
                                                    std::free);
  return status == 0 && name ? std::string(name.get()) : std::string(type.name());
}

}  // namespace

std::string failureText(std::exception_ptr failure) {
  if (!failure) return "no failure";
  try {
    std::rethrow_exception(failure);
  } catch (const CapacityExceeded& exceeded) {
    return exceeded.what();
  } catch (const std::bad_alloc& exhausted) {
    return "memory ran out (" + typeName(typeid(exhausted)) + ")";
  } catch (const std::exception& other) {
    return typeName(typeid(other)) + ": " + other.what();
  } catch (...) {
    return "an exception of an unknown type";
  }
}

}  // namespace BAS
