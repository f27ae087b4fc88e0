// A writer tree that gives back the values of an image.
#ifndef VKT_TOOLS_TREE_FROM_IMAGE_H_
#define VKT_TOOLS_TREE_FROM_IMAGE_H_

#include "vkt.h"

// Rebuilds `value` and everything under it as a writer tree: integers as
// integers when they fit 32 bits and as long integers otherwise, floats as
// doubles, stream payloads by reference (the image's bytes must outlive the
// tree) with the alignment they have and their bound flag. REQUIRES: a
// verified image held whole in memory; the recursion is as deep as its
// nesting, which verify bounds.
//
// Sharing can make an image's values far larger than the image: the string
// bytes copied are taken from *budget, and the rebuild gives up (false, *out
// partial) once they would pass it.
bool tree_from_image(const VKTValue& value, vkt_u64* budget,
                     VKTWriterValue* out);

#endif  // VKT_TOOLS_TREE_FROM_IMAGE_H_
