// Construction of the value-store kinds. Store layer; any thread.
#include "store/value_store.h"

namespace Tarvel {

IValueStore* MakeValueStore(int size, ValueKind* kind) {
    switch (size) {
        case 1:
            *kind = ValueKind::kSize1;
            return NewObject<KValueStore<4, 1>>();
        case 4:
            *kind = ValueKind::kSize4;
            return NewObject<KValueStore<4, 4>>();
        case 8:
            *kind = ValueKind::kSize8;
            return NewObject<KValueStore<8, 8>>();
        default:
            *kind = ValueKind::kNone;
            return nullptr;
    }
}

}  // namespace Tarvel
