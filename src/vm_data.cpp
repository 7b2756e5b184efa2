// Loading, storing and releasing the data table of a context.
#include <QZ/QZMISC>
#include <QZ/QZDATA>

namespace QZ {

void vm_t::loadData() { throw std::logic_error("LDX DPT is not available yet"); }

void vm_t::storeData() { throw std::logic_error("STORE DPT is not available yet"); }

void vm_t::freeData() { set(DPT, (void*)nullptr); }

}  // namespace QZ
