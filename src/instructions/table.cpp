// Loading, storing and releasing the data table of a context.
#include <QZ/QZMISC>
#include <QZ/QZDATA>
#include <QZ/QZIO>

#include <unistd.h>

#include <fstream>
#include <new>
#include <stdexcept>
#include <sstream>

namespace QZ {

namespace {

typedef std::vector<std::vector<std::string>*> NameLists;

// A binary table says how many rows, columns and categories it has; the
// reader takes that on trust. Here the cells it announces must be in the file
// (a header of huge counts would otherwise have it allocate and wait for
// bytes that never come), a category must fit the 16-bit code, and the names
// it makes for every column's categories must fit into memory at all. Rows
// are bounded on their own too: a row of no columns takes no byte of the
// file, so that a header of no columns could announce any number of rows,
// which every later pass over the table would walk, one by one.
void checkBinaryHeader(const std::string& fn) {
    std::ifstream in(fn, std::ios::binary);
    size_t head[4] = {0, 0, 0, 0};
    in.read(reinterpret_cast<char*>(head), sizeof(head));
    const size_t len = filesize(fn), N = head[1], n = head[2], sX = head[3];
    const std::string what = "binary table " + fn + " announces " + std::to_string(N) + " rows, " +
                             std::to_string(n) + " columns and " + std::to_string(sX) + " categories";
    size_t cells;
    if (len < sizeof(head) || __builtin_mul_overflow(N, n, &cells) || cells > len - sizeof(head))
        throw std::logic_error(what + ", but holds only " + std::to_string(len) + " bytes");
    if (n == 0 && N > 0) throw std::logic_error(what + ": rows need at least one column");
    if (sX > CategoricalData::MIS_VAL) throw std::logic_error(what + ": a category code has 16 bits");
    // A name costs a map node and a string, some 100 bytes; a column its own
    // map and list of names, some 128 bytes, also with no category at all.
    const double bytes = (double)n * ((double)sX * 100.0 + 128.0);
    const double memory = (double)sysconf(_SC_PHYS_PAGES) * (double)sysconf(_SC_PAGESIZE);
    if (bytes > memory) throw std::bad_alloc();
}

// The table is read against the coding of the model in MPT, if there is one:
// the model's state names, or Y0, Y1, ... when the model has none. The model
// also says how many hidden columns (and of how many states) the file lacks.
template <typename idx_t, typename val_t> void loadData0(vm_t& vm) {
    void* mp = vm.getP(vm_t::MPT);
    // The dry-pass placeholder is no model.
    IO<idx_t, val_t>* io = mp == (void*)1 ? nullptr : static_cast<IO<idx_t, val_t>*>(mp);
    NameLists* YN = nullptr;
    bool tempYN = false;
    size_t Lnum = 0, Ly = 0;

    if (io != nullptr) {
        // The model's variables: those its states are laid out for, which a
        // conversion may have left under another graph.
        size_t V = vm.misfitModel == (const void*)io ? vm.misfitVertices
                   : io->G != nullptr                 ? (size_t)io->G->vertices()
                   : io->Ynames != nullptr            ? io->Ynames->size()
                                                      : 0;
        if (V == ~(size_t)0) V = 0;
        const size_t gra = vm.get(vm_t::GRA);
        const std::vector<size_t>* L = vm.getLP(vm_t::LPT);
        // Without a layer list there is nothing to add.
        if ((gra == vm_t::RBM || gra == vm_t::DBT) && L != nullptr && !L->empty()) {
            for (size_t k = 1; k + 1 < L->size(); ++k) Lnum += L->at(k);
            // The first hidden unit follows the visible ones; a list that
            // puts it beyond the model's variables names no state count.
            if (L->front() >= V)
                throw std::out_of_range("the layer list puts the first hidden unit at " + std::to_string(L->front()) +
                                        ", but the model has " + std::to_string(V) + " variables");
            Ly = (size_t)io->Y[L->front()];
        }
        YN = io->Ynames;
        if (YN == nullptr) {
            YN = new NameLists();
            tempYN = true;
            for (size_t i = 0; i < V; ++i) {
                std::vector<std::string>* names = new std::vector<std::string>();
                for (size_t x = 0; x < (size_t)io->Y[i]; ++x) names->push_back("Y" + std::to_string(x));
                YN->push_back(names);
            }
        }
    }

    void* edp = vm.getP(vm_t::EDP);
    const std::string* dfn = vm.getS(vm_t::DFN);
    size_t magic = 0;
    if (edp == nullptr) {
        std::ifstream f(*dfn, std::ios::binary);
        f.read(reinterpret_cast<char*>(&magic), 8);
        f.close();
    }

    const size_t NX = vm.get(vm_t::NNN);
    CategoricalData* D;
    if (magic == CategoricalBinaryData::MAGIC)
        D = new CategoricalBinaryData();
    else if (edp != nullptr && NX != 0)
        D = new CategoricalNumPyData(vm.getB(vm_t::YYC), YN);
    else
        D = new CategoricalCSVData(vm.getB(vm_t::HED), vm.getC(vm_t::MIS), vm.getB(vm_t::YYC), YN);

    if (tempYN) {
        for (auto* names : *YN) delete names;
        delete YN;
    }

    if (edp == nullptr) {
        if (magic == CategoricalBinaryData::MAGIC) checkBinaryHeader(*dfn);
        D->read(*dfn);
        D->addColumns(Lnum, Ly);
        vm.set(vm_t::RES, filesize(*dfn));
    } else if (NX != 0) {
        // GPX is the byte size of the host array: its columns follow from the
        // rows. A row holds at least one cell of 2 bytes: rows that the array
        // cannot hold (a row count whose byte size wraps, or rows without
        // cells) would have every pass over the table walk them for nothing.
        const size_t bytes = vm.get(vm_t::GPX);
        if (NX > bytes / 2) {
            delete D;
            throw std::logic_error("host table announces " + std::to_string(NX) + " rows (NXX) in " +
                                   std::to_string(bytes) + " bytes (GPX): rows need at least one column");
        }
        const size_t cols = bytes / (NX * 2);
        static_cast<CategoricalNumPyData*>(D)->read(static_cast<unsigned short*>(edp), NX, cols);
    } else {
        const std::string* text = static_cast<const std::string*>(edp);
        std::istringstream in(*text);
        D->read(in);
        D->addColumns(Lnum, Ly);
        vm.set(vm_t::RES, text->length());
    }

    vm.set(vm_t::DPT, (void*)D);
    vm.set(vm_t::NNN, D->size());
}

struct LoadData {
    vm_t& vm;
    template <typename idx_t, typename val_t> void operator()() { loadData0<idx_t, val_t>(vm); }
};

}  // namespace

// An IDX, VAL pair that names no instantiation loads nothing, silently.
void vm_t::loadData() {
    LoadData f{*this};
    dispatch(f);
}

void vm_t::storeData() { static_cast<CategoricalData*>(getP(DPT))->store(*getS(DFN)); }

void vm_t::freeData() {
    void* p = getP(DPT);
    if (p != nullptr && p != (void*)1) delete static_cast<CategoricalData*>(p);
    set(DPT, (void*)nullptr);
}

}  // namespace QZ
