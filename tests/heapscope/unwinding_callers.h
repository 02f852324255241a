// Functions that call back from frames of many kinds. They are compiled with and without frame
// pointers.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*Callback)(void);

void CallFromAllKinds(Callback callback);
void CallFromAllKindsWithFramePointers(Callback callback);

#ifdef __cplusplus
}
#endif
