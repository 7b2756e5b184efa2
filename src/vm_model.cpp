// Loading, storing, exporting and releasing the model container of a context.
#include <QZ/QZMISC>
#include <QZ/QZIO>

namespace QZ {

void vm_t::loadModel() { throw std::logic_error("LDX MPT is not available yet"); }

void vm_t::storeModel() { throw std::logic_error("STORE MPT is not available yet"); }

void vm_t::storeGraph() { throw std::logic_error("STORE GPT is not available yet"); }

size_t vm_t::getDim() const { return 0; }

void vm_t::attachGraphToModel() {}

bool vm_t::freeModel() {
    set(MPT, (void*)nullptr);
    return true;
}

}  // namespace QZ
