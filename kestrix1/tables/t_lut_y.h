// Tables over luminance and chroma: a costly per-pixel colour mapping, supplied by a derived
// class through mapYDrDb, is sampled into tables and the tables are applied to planes.
//
// TLutY16U samples the mapping's effect on Y: 4096 calls at Y = 16 i with neutral chroma,
// enlarged by 16 with linear interpolation into a 65536-entry table. TLutYDrDb adds chroma
// tables over the pair of 8-bit chroma values, one 256 x 256 table per band of Y, each from
// 128 x 128 calls enlarged by 2. A table entry for a chroma pair (dr, db) sits at
// (dr << 8) | db and holds the mapped pair coded the same way. TLutY and TLutC are plain
// tables over TImage planes; TLut2D holds a fixed count of tables for a derived class.
//
// Copies of these classes share their tables (the pointers are copied). TLutY16U frees its
// table with the last copy; of the others only one copy may be destroyed.
#pragma once

#include <memory>

#include <opencv2/core.hpp>

#include "kestrix1/frame/export.h"
#include "kestrix1/image/t_image.h"

// Y table of a mapping on (Y, Dr, Db) in the 16-bit plane coding (Dr, Db neutral at 32768).
class KESTRIX1_EXPORT TLutY16U {
public:
    // Allocates the Y table.
    TLutY16U();
    virtual ~TLutY16U();

    // Recomputes the Y table from mapYDrDb and maps the CV_16UC1 plane in place through it.
    // Another type throws "ERROR - TLutYDrDb::proc - inOutY16U.type()!=CV_16UC1"; an empty
    // plane returns at once. Always returns true.
    bool proc(cv::Mat &inOutY16U);

    // The mapping, changing Y, Dr and Db in place. It is called from many threads at once
    // and must not change the object.
    virtual void mapYDrDb(unsigned short &Y, unsigned short &Dr, unsigned short &Db) = 0;

protected:
    // Allocates the Y table when there is none.
    void setupYLUT();

    // With true, recomputes the Y table; with false, does nothing.
    void computeLUT16U(bool recompute);

    // outY (created as CV_16UC1 of inY's size) = table[inY]. Throws
    // "ERROR - TLutYDrDb::applyYLUT - !m_lutY_p" without a table, and
    // "ERROR -  TLutYDrDb::applyYLUT(const Mat &inY, Mat &outY) - inY.type() != CV_16UC1".
    void applyYLUT(cv::Mat const &inY, cv::Mat &outY);

    unsigned short *m_lutY_p;  // 65536 entries, shared by copies

private:
    std::shared_ptr<unsigned short> m_lutYOwner;  // frees the table with the last copy
};

// Y and chroma tables of a mapping on 16-bit Y and 8-bit chroma (neutral 128).
class KESTRIX1_EXPORT TLutYDrDb {
public:
    // Allocates the Y table and 2^min(nc, 5) chroma tables (none for a negative nc).
    explicit TLutYDrDb(int nc = 4);
    virtual ~TLutYDrDb();

    // Computes all tables, then maps full-size planes: Y (CV_16UC1), Dr and Db (CV_8UC1) into
    // outY (CV_16UC1) and, when there are chroma tables, outDr and outDb (CV_8UC1); without
    // chroma tables outDr and outDb are left as they are. Throws
    // "ERROR - TLutYDrDb::proc - inY16U.type()!=CV_16UC1 || inDr8U.type!=CV_8UC1 ||
    // inDb8U.type()!=CV_8UC1" (one line) and then
    // "ERROR - TLutYDrDb::proc inY16U.size != inDr8U.size || inY16U.size!= inDb8U.size".
    bool proc(cv::Mat const &inY16U, cv::Mat const &inDr8U, cv::Mat const &inDb8U, cv::Mat &outY16U,
              cv::Mat &outDr8U, cv::Mat &outDb8U);

    // Computes all tables and maps the Y plane in place, as TLutY16U::proc.
    bool proc(cv::Mat &inOutY16U);

    // The mapping, changing Y, Dr and Db in place. Called from many threads at once; it
    // must not change the object.
    virtual void mapYDrDb(unsigned short &Y, unsigned char &Dr, unsigned char &Db) = 0;

protected:
    // Fills the Y table and every chroma table. One table samples the mapping at Y = 32767;
    // N >= 2 tables sample band k at Y = k bin + half, bin = round(65535 / N),
    // half = round(32767 / N).
    void computeLUT();

    // Sets the table count to 2^min(nc, 5) (0 for a negative nc) and allocates the tables
    // missing below it. Tables above it are released for good: once a count has been
    // lowered, a later call can't raise it again. Returns numCLUT().
    int setupCLUT(int nc);

    // 0 when m_NC is negative, else 1 << m_NC.
    int numCLUT() const { return m_NC < 0 ? 0 : 1 << m_NC; }

    // Chroma of full-size planes through the band tables of Y (CV_16UC1 of Dr's size). With
    // shift = 16 - m_NC and width = 1 << shift: lo = Y >> shift, hi = lo + 1 (the top band
    // pairs N - 2 with N - 1), w = ((hi + 1) width - Y) / width in integers, and each output
    // is w a + (1 - w) b from tables lo and hi, truncated and saturated. w is 1 inside a
    // band, 2 on a band's first code, and 0 (1 on its first code) in the top band: a band
    // look-up that hosts rely on as it is. With one table, as the four-plane form.
    void applyCLUT(cv::Mat const &inY, cv::Mat const &inDr, cv::Mat const &inDb, cv::Mat &outDr,
                   cv::Mat &outDb);

    // Chroma through the first table: t = table0[(dr << 8) | db], dr' = t >> 8,
    // db' = t & 255. Outputs are created as CV_8UC1 of the input's size. Throws
    // "ERROR -TLutYDrDb::applyCLUT: inDr.type() !=inDb_p.type() || inDr.type() != CV_8UC1"
    // and then, without tables, "ERROR - TLutYDrDb::applyCLUT - m_NC<1 ".
    void applyCLUT(cv::Mat const &inDr, cv::Mat const &inDb, cv::Mat &outDr, cv::Mat &outDb);

    // The same checks and Y table look-up as TLutY16U.
    void applyYLUT(cv::Mat const &inY, cv::Mat &outY);

    unsigned short *m_lutY_p;      // 65536 entries, owned
    int m_NC;                      // log2 of the number of chroma tables, at most 5
    unsigned short *m_lutC_p[32];  // chroma tables of 65536 entries, owned, or null

private:
    int m_ceilNC;  // the largest m_NC that the tables still allow
};

// A fixed count of 65536-entry tables for a derived class to fill and apply.
class KESTRIX1_EXPORT TLut2D {
public:
    // Allocates the first n of the 16 tables (n limited to 0..16).
    explicit TLut2D(int n = 16);
    virtual ~TLut2D();

    int numLuts() const { return m_n; }

    // Hooks for a derived class; here they do nothing.
    virtual void computeLUT() {}
    virtual void apply(cv::Mat const &inY, cv::Mat &inOutDr, cv::Mat &inOutDb) {
        (void)inY;
        (void)inOutDr;
        (void)inOutDb;
    }

    // The mapping that a derived class tabulates, as TLutYDrDb::mapYDrDb.
    virtual void mapYDrDb(unsigned short &Y, unsigned char &Dr, unsigned char &Db) = 0;

protected:
    int m_n;
    unsigned short *m_lut_p[16];
};

// One 65536-entry table over a 16-bit TImage plane.
class KESTRIX1_EXPORT TLutY {
public:
    TLutY();
    ~TLutY();

    unsigned short *ptr() { return m_lut_p; }

    // Entry i = i.
    void setLinear();

    // Maps a Y16U image in place through the table. Another type throws
    // "ERROR - TLutY::apply - wrong type".
    void apply(TImage &image);

private:
    unsigned short *m_lut_p;
};

// Chroma tables over the two 8-bit planes of a C8U2 TImage, coded as in TLutYDrDb.
class KESTRIX1_EXPORT TLutC {
public:
    // n tables, n limited to 0..32.
    explicit TLutC(int n = 1);
    ~TLutC();

    unsigned short *ptr(int k) { return m_lut_p[k]; }
    int count() const { return m_n; }

    // Every table the identity: entry e = e.
    void setLinear();

    // Maps both planes of a C8U2 image in place through the first table. Another type, or no
    // table, throws "ERROR - TLutC::apply - wrong type".
    void apply(TImage &image);

    // Takes the half-size 8-bit Y of `src` and stops there: `c` is left as it is.
    void apply(TImage const &src, TImage &c);

private:
    int m_n;
    unsigned short *m_lut_p[32];
};
