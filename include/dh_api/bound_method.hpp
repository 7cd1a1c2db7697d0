#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>

#include "dh_error.hpp"

namespace dh::api {

// What a node needs to know about the handler method it is bound to: the handler class, the
// result type and the parameter list.
template <class F>
struct method_traits;

template <class R, class C, class... A>
struct method_traits<R (C::*)(A...)> {
    using class_type = C;
    using result_type = R;
    using args = std::tuple<A...>;
};
template <class R, class C, class... A>
struct method_traits<R (C::*)(A...) const> : method_traits<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct method_traits<R (C::*)(A...) noexcept> : method_traits<R (C::*)(A...)> {};
template <class R, class C, class... A>
struct method_traits<R (C::*)(A...) const noexcept> : method_traits<R (C::*)(A...)> {};

// How a fixed argument is kept in a node: by value, and a string view as a string so that it
// cannot dangle once the text it was made from is gone.
template <class P>
using stored_arg_t = std::conditional_t<std::is_same_v<std::remove_cvref_t<P>, std::string_view>,
                                        std::string, std::remove_cvref_t<P>>;

namespace detail {

template <class Tuple, class Seq>
struct stored_prefix;
template <class Tuple, std::size_t... I>
struct stored_prefix<Tuple, std::index_sequence<I...>> {
    using type = std::tuple<stored_arg_t<std::tuple_element_t<I, Tuple>>...>;
};

template <class P>
inline constexpr bool is_mutable_ref_v =
    std::is_lvalue_reference_v<P> && !std::is_const_v<std::remove_reference_t<P>>;

template <class Tuple, class Seq>
struct any_mutable_ref;
template <class Tuple, std::size_t... I>
struct any_mutable_ref<Tuple, std::index_sequence<I...>>
    : std::bool_constant<(is_mutable_ref_v<std::tuple_element_t<I, Tuple>> || ...)> {};

}  // namespace detail

// The parameter of M that carries a client's value (its last one), as written in M's signature
// and as the value a node converts and keeps.
template <auto M>
using client_param_t =
    std::tuple_element_t<std::tuple_size_v<typename method_traits<decltype(M)>::args> - 1,
                         typename method_traits<decltype(M)>::args>;
template <auto M>
using client_value_t = std::remove_cvref_t<client_param_t<M>>;
template <auto M>
inline constexpr std::size_t method_arity_v =
    std::tuple_size_v<typename method_traits<decltype(M)>::args>;
template <class P>
inline constexpr bool is_mutable_ref_v = detail::is_mutable_ref_v<P>;

// A handler method M with its first `Fixed` parameters bound to values given at creation; the
// remaining parameter (if any) is the value a client supplies. The handler is held weakly: a node
// must not keep the handler alive, and reports "Object has been removed" once it is gone.
template <auto M, std::size_t Fixed>
class bound_method {
    using traits = method_traits<decltype(M)>;
    using all_args = typename traits::args;
    static_assert(Fixed <= std::tuple_size_v<all_args>, "more fixed arguments than parameters");

  public:
    using params = all_args;
    using handler_type = typename traits::class_type;
    using result_type = typename traits::result_type;
    using fixed_args =
        typename detail::stored_prefix<all_args, std::make_index_sequence<Fixed>>::type;

    // Each fixed argument is converted explicitly to its stored type, so that a string view
    // becomes a string and an integer constant may name an enumerator (addr_family{0}).
    template <class... A>
    requires(sizeof...(A) == Fixed) explicit bound_method(std::weak_ptr<handler_type> handler,
                                                          A&&... fixed)
        : handler_(std::move(handler)),
          fixed_(make_fixed(std::index_sequence_for<A...>{}, std::forward<A>(fixed)...)) {}

    // Calls M on the handler with the fixed arguments followed by `rest`.
    template <class... Rest>
    result_type call(Rest&&... rest) const {
        auto handler = handler_.lock();
        if (!handler) throw dh_error(-2, "Object has been removed");
        constexpr bool copy_fixed =
            detail::any_mutable_ref<all_args, std::make_index_sequence<Fixed>>::value;
        if constexpr (copy_fixed) {
            auto fixed = fixed_;
            return std::apply(
                [&](auto&... f) -> result_type {
                    return ((*handler).*M)(f..., std::forward<Rest>(rest)...);
                },
                fixed);
        } else {
            return std::apply(
                [&](const auto&... f) -> result_type {
                    return ((*handler).*M)(f..., std::forward<Rest>(rest)...);
                },
                fixed_);
        }
    }

  private:
    template <std::size_t... I, class... A>
    static fixed_args make_fixed(std::index_sequence<I...>, A&&... a) {
        return fixed_args(static_cast<std::tuple_element_t<I, fixed_args>>(std::forward<A>(a))...);
    }

    std::weak_ptr<handler_type> handler_;
    fixed_args fixed_;
};

}  // namespace dh::api
