// The exported C interface. No function here catches an exception: failures
// of a program reach the host as they are.
#include <vm_wrapper>
#include <QZ/QZMISC>

#include <cstdlib>

volatile bool __run = true;

extern "C" {

void* create_ctx() { return new QZ::vm_t(); }

bool ctx_set_code(void* ctx, char** code, size_t n) {
    QZ::vm_t* vm = static_cast<QZ::vm_t*>(ctx);
    if (vm->running()) return false;
    std::vector<std::string>* L = vm->getCode();
    if (L == nullptr)
        L = new std::vector<std::string>();
    else
        L->clear();
    for (size_t i = 0; i < n; ++i) L->push_back(std::string(code[i]));
    vm->setCode(L);
    return true;
}

bool run_ctx(void* ctx) { return static_cast<QZ::vm_t*>(ctx)->run(); }

bool reset_ctx(void* ctx) { return static_cast<QZ::vm_t*>(ctx)->reset(); }

size_t ctx_read_reg(void* ctx, char* r) { return static_cast<QZ::vm_t*>(ctx)->getRegValByName(r); }

bool ctx_write_reg(void* ctx, char* r, size_t val) { return static_cast<QZ::vm_t*>(ctx)->setRegValByName(r, val); }

void destroy_ctx(void* ctx) {
    if (ctx == nullptr) return;
    delete static_cast<QZ::vm_t*>(ctx);
}

size_t version() { return 10068; }

// The first interrupt asks for a graceful stop, a second one ends the process.
void ctrlchandler(int) {
    if (!__run) abort();
    __run = false;
}

}  // extern "C"

vm_wrapper::vm_wrapper() : vm(new QZ::vm_t()) {}

vm_wrapper::~vm_wrapper() {
    if (vm != nullptr) delete static_cast<QZ::vm_t*>(vm);
}

void vm_wrapper::setCode(std::vector<std::string>* L) { static_cast<QZ::vm_t*>(vm)->setCode(L); }

void vm_wrapper::run() { (void)static_cast<QZ::vm_t*>(vm)->run(); }
