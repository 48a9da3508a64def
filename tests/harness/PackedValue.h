// PackedValue.h — reading fields of byte-packed records in assertions.
#pragma once

namespace talvortest {

// Fields of byte-packed records may lie on any byte: assertions take them
// by value, never by reference.
template <class T>
T Val(T v)
{
    return v;
}

} // namespace talvortest
