// The parameter image of a drive version: every saved parameter as one
// element of its type's size, little endian, in list order, with the
// version's word swap. "SV" writes it to the flash, "LD" reads it back,
// "IM" carries it as hexadecimal text.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sim/simversiondb.h"

namespace tessitor::sim {

/// The image of values (one per element of list.arParams, all elements).
std::vector<std::uint8_t> EncodeImage(const SimParamList& list, const std::vector<double>& values);
/// Reads image into values (one per element); returns 0, or 4 (value out
/// of range) when its size does not fit the list or an element is outside
/// its limits; values are left unchanged then.
int DecodeImage(const SimParamList& list, const std::vector<std::uint8_t>& image, std::vector<double>& values);
/// The size of the list's image in bytes.
std::size_t ImageSize(const SimParamList& list);

/// Upper-case hexadecimal text, two digits a byte.
std::string HexText(const std::vector<std::uint8_t>& bytes);
/// Reads hexadecimal text (either case); false on an odd length or a bad digit.
bool HexBytes(const std::string& text, std::vector<std::uint8_t>& bytes);

} // namespace tessitor::sim
