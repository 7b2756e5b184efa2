// Model instructions whose bodies are not part of this build yet. Each one
// fails loudly with its own name instead of silently doing nothing.
#include <QZ/QZMISC>

namespace QZ {

static void missing(const char* name) { throw std::logic_error(std::string(name) + " is not available yet"); }

void vm_t::convertGraphST() { missing("STGRAPH"); }
void vm_t::convertGraphDBT() { missing("BOLTZMANNTREE"); }
void vm_t::convertGraphJT() { missing("JUNCTIONTREE"); }
void vm_t::getBaseGraph() { missing("BASEGRAPH"); }

}  // namespace QZ
