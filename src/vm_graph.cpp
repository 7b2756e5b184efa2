// Loading and releasing the graph of a context.
#include <QZ/QZMISC>
#include <QZ/QZGRAPH>

namespace QZ {

void vm_t::loadGraph() { throw std::logic_error("LDX GPT is not available yet"); }

bool vm_t::freeGraph() {
    set(GPT, (void*)nullptr);
    return true;
}

bool vm_t::graphCount(VarType, size_t&) const { return false; }

}  // namespace QZ
