#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace harlune {

template <class Signature> class FunctionRef;

/// A non-owning reference to a callable: passing a lambda costs no allocation, unlike
/// std::function. The callable must outlive the call it is passed to.
template <class Result, class... Args> class FunctionRef<Result(Args...)> {
public:
    template <class Callable>
    requires(!std::is_same_v<std::remove_cvref_t<Callable>, FunctionRef> &&
             std::is_invocable_r_v<Result, Callable&, Args...>) FunctionRef(Callable&& callable)
    noexcept // NOLINT: implicit by design, like a function pointer
        : object_(const_cast<void*>(static_cast<const void*>(std::addressof(callable)))),
          invoke_([](void* object, Args... args) -> Result {
              return (*static_cast<std::remove_reference_t<Callable>*>(object))(std::forward<Args>(args)...);
          }) {}

    Result operator()(Args... args) const { return invoke_(object_, std::forward<Args>(args)...); }

private:
    void* object_;
    Result (*invoke_)(void*, Args...);
};

} // namespace harlune
