// The second linkage of the image stream library, for callers of languages
// that pass every argument by reference: each function also exists under a
// lower-case name ending in an underscore (IMRtXY as irtxy_), taking every
// scalar argument by address. Arrays, strings and outputs pass unchanged.
//
// Names follow one rule: the IM name lower-cased with the leading "im"
// shortened to "i". The exceptions are listed in second_linkage_table.h and
// beside the hand-written wrappers below.
#pragma once

#include <cstddef>
#include <tuple>

#include "imsubs/imsubs.h"

namespace imlink {

// How one argument of an IM function arrives: a scalar by address, a pointer
// (array, string, output) as it is.
template <typename T>
struct ByRef {
  using type = T*;
  static T get(T* p) { return *p; }
};
template <typename T>
struct ByRef<T*> {
  using type = T*;
  static T* get(T* p) { return p; }
};
template <typename T>
using RefOf = typename ByRef<T>::type;

template <typename F>
struct Signature;
template <typename R, typename... A>
struct Signature<R (*)(A...)> {
  using Result = R;
  static constexpr std::size_t arity = sizeof...(A);
  template <std::size_t i>
  using Param = RefOf<std::tuple_element_t<i, std::tuple<A...>>>;
  // Dereferences what the rule passes by address and calls f.
  template <R (*f)(A...)>
  static R call(RefOf<A>... args) {
    return f(ByRef<A>::get(args)...);
  }
};

template <auto f>
using ResultOf = typename Signature<decltype(f)>::Result;
template <auto f, std::size_t i>
using ParamOf = typename Signature<decltype(f)>::template Param<i>;

// One entry of the second linkage, for listings and tests.
struct Entry {
  char const* alias;
  char const* name;
};
// Every second name with the IM function it reaches, the hand-written
// wrappers included; `count` receives the number of entries.
Entry const* entries(int* count);

}  // namespace imlink

// Parameter lists of 0 to 12 arguments, typed from the IM function.
#define IM_LINK_P0(f)
#define IM_LINK_P1(f) imlink::ParamOf<f, 0> a0
#define IM_LINK_P2(f) IM_LINK_P1(f), imlink::ParamOf<f, 1> a1
#define IM_LINK_P3(f) IM_LINK_P2(f), imlink::ParamOf<f, 2> a2
#define IM_LINK_P4(f) IM_LINK_P3(f), imlink::ParamOf<f, 3> a3
#define IM_LINK_P5(f) IM_LINK_P4(f), imlink::ParamOf<f, 4> a4
#define IM_LINK_P6(f) IM_LINK_P5(f), imlink::ParamOf<f, 5> a5
#define IM_LINK_P7(f) IM_LINK_P6(f), imlink::ParamOf<f, 6> a6
#define IM_LINK_P8(f) IM_LINK_P7(f), imlink::ParamOf<f, 7> a7
#define IM_LINK_P9(f) IM_LINK_P8(f), imlink::ParamOf<f, 8> a8
#define IM_LINK_P10(f) IM_LINK_P9(f), imlink::ParamOf<f, 9> a9
#define IM_LINK_P11(f) IM_LINK_P10(f), imlink::ParamOf<f, 10> a10
#define IM_LINK_P12(f) IM_LINK_P11(f), imlink::ParamOf<f, 11> a11
#define IM_LINK_A0
#define IM_LINK_A1 a0
#define IM_LINK_A2 IM_LINK_A1, a1
#define IM_LINK_A3 IM_LINK_A2, a2
#define IM_LINK_A4 IM_LINK_A3, a3
#define IM_LINK_A5 IM_LINK_A4, a4
#define IM_LINK_A6 IM_LINK_A5, a5
#define IM_LINK_A7 IM_LINK_A6, a6
#define IM_LINK_A8 IM_LINK_A7, a7
#define IM_LINK_A9 IM_LINK_A8, a8
#define IM_LINK_A10 IM_LINK_A9, a9
#define IM_LINK_A11 IM_LINK_A10, a10
#define IM_LINK_A12 IM_LINK_A11, a11

// Declarations of the table's wrappers.
#define IM_LINK(n, alias, fn) extern "C" imlink::ResultOf<&fn> alias(IM_LINK_P##n(&fn));
#include "imsubs/second_linkage_table.h"
#undef IM_LINK

// Wrappers that do more than dereference.
extern "C" {
// Blank-padded strings with hidden lengths: the name up to nameLength or a
// NUL, the attribute up to a blank, a NUL or 35 characters.
int imopen_(int* iStream, char const* name, char const* attrib, int nameLength, int attribLength);
// One wrapper under two names; the title is cut at 79 characters.
void iwrhdr_(int* iStream, char const* title, int* titleMode, float* min, float* max, float* mean);
void iwrhdrc_(int* iStream, char const* title, int* titleMode, float* min, float* max, float* mean);
// The middle argument is ignored.
int ialnumlab_(int* iStream, int* ignored, int* count);
// Bounds counted from 1.
int iclden_(float const* image, int* width, int* height, int* firstColumn, int* lastColumn,
            int* firstRow, int* lastRow, float* min, float* max, float* mean);
int ialdel2_(int* iStream, float* dx, float* dy, float* dz);
int ialzwt_(int* iStream, int* nz, int* nw, int* nt, int* sequence);
int itrexhdr2_(int* dst, int* src, int* zFirst, int* zLast, int* zStep, int const* waveFlags,
               int* tFirst, int* tLast, int* tStep);
}
