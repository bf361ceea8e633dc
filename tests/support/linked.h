// Link-time checks of exported instantiations. Taking the address of a function refers to its
// symbol, so a program that names an instantiation the library lacks fails to link; at run time
// there is nothing left to check. The addresses go through a volatile store so that the
// optimiser cannot drop the references (a comparison of a function's address with null is folded
// to true, and with it the reference).
#pragma once

namespace testlinked {

template <typename F> void keep(F f)
{
    static F volatile kept;
    kept = f;
}

/// Refers to every function (or member function) of @p functions from the program.
template <typename... F> void requireLinked(F... functions)
{
    (keep(functions), ...);
}

} // namespace testlinked
