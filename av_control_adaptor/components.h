// Components: the mapping between component types and the service's track
// types, the component list collected on track events, and the copying of
// track texts into component records.
#ifndef PAVO_AV_CONTROL_ADAPTOR_COMPONENTS_H
#define PAVO_AV_CONTROL_ADAPTOR_COMPONENTS_H

#include <cstddef>
#include <string>

#include "pavo_avctrl_types.h"
#include "pavo_record_list.h"

namespace pavo::avctrl {

// Component type -> track type: -1 other, 0 video, 1 audio, 2 subtitle map
// to 3, 0, 1, 2; every other value to 3 (other).
PavoTrackType track_type_of(PavoAVComponentType type);

// Track type -> component type: 0, 1, 2 stay; every other value (negative
// ones included) gives -1 (other).
PavoAVComponentType component_type_of(int track_type);

// Copies `text` into the fixed field `out` of `capacity` bytes (at least 1):
// the text up to its first NUL, cut to capacity - 1 bytes when longer, never
// in the middle of a UTF-8 character; always NUL-terminated. Nothing is
// written beyond `capacity`.
void copy_text(char* out, std::size_t capacity, const std::string& text);

// Normalises a component record's language: a two-letter ISO 639-1 code
// (any letter case) becomes its three-letter bibliographic ISO 639-2 code,
// "eng" when it is not known; then "fra" (exactly) becomes "fre". Texts of
// any other length stay as they are.
void normalise_language(char (&language)[4]);

// Appends one record per component of `type` of the one A/V control object
// (Pavo_AVCtrl_GetHandle) to `list`, asking for at most
// PAVO_AVCTRL_MAX_COMPONENTS. A component that cannot be read is skipped.
// Returns 0; -1 when there is no single object or the count cannot be read.
// REQUIRES: `list` prepared with Init. Blocks for one request per component.
int GetComponents(PavoAVComponentType type, PavoRecordList* list);

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_COMPONENTS_H
