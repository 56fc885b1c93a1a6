// The RMS level of every packet of a file, kept between runs: a silence
// split reads it again instead of decoding the file again (what takes the
// time), as long as the file is the same one, unchanged.
//
// One file per source under $KEL_CACHE_DIR, else $XDG_CACHE_HOME/kel, else
// ~/.cache/kel; an empty KEL_CACHE_DIR turns the cache off. A source is
// known by its device, inode, size and modification time; anything that
// does not match, or does not read whole, is computed anew. The cache
// holds only what can be computed again, so failing to write it is silent.
#ifndef KEL_TOOLS_LEVELCACHE_H
#define KEL_TOOLS_LEVELCACHE_H

#include <string>
#include <vector>

namespace KEL::cli {

class LevelCache {
public:
    explicit LevelCache(const std::string& source);

    // The levels of the `packets` packets, or false when not cached.
    bool load(int packets, std::vector<float>& levels) const;
    // Keeps them for the next run.
    void store(const std::vector<float>& levels) const;

private:
    struct Key {
        unsigned long long device = 0;
        unsigned long long inode = 0;
        long long size = 0;
        long long mtime_ns = 0;
    };

    std::string path_; // empty: no cache
    Key key_;
};

} // namespace KEL::cli

#endif
