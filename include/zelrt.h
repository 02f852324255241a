/* zelrt: runtime support for data collectors that run inside other people's processes.
 *
 * This header is the whole interface, for C and for C++. Each family also stands alone in
 * zelrt/NAME.h; start with zelrt/runtime.h, which says how a collector brings the library up. */
#ifndef ZELRT_H
#define ZELRT_H

#include "zelrt/annotate.h"
#include "zelrt/annotations.h"
#include "zelrt/atomics.h"
#include "zelrt/base.h"
#include "zelrt/call_stacks.h"
#include "zelrt/command.h"
#include "zelrt/crc32.h"
#include "zelrt/files.h"
#include "zelrt/hash_table.h"
#include "zelrt/locks.h"
#include "zelrt/log.h"
#include "zelrt/memory.h"
#include "zelrt/modules.h"
#include "zelrt/options.h"
#include "zelrt/platform.h"
#include "zelrt/processes.h"
#include "zelrt/queue.h"
#include "zelrt/range_table.h"
#include "zelrt/red_black_tree.h"
#include "zelrt/runtime.h"
#include "zelrt/sets.h"
#include "zelrt/strings.h"
#include "zelrt/vector.h"
#include "zelrt/xml.h"

#ifdef __cplusplus
#include "zelrt/command_channels.hpp"
#include "zelrt/command_controller.hpp"
#include "zelrt/command_handler.hpp"
#include "zelrt/log.hpp"
#include "zelrt/numbers.hpp"
#include "zelrt/paths.hpp"
#include "zelrt/system_information.hpp"
#include "zelrt/xml_writer.hpp"
#endif

#endif
