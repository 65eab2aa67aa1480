// ColorManagement equals one cmsDoTransform over the whole interleaved buffer (with the 15-bit
// shift and mask) at awkward sizes, padded strides and 1, 2 and 4 threads.
#include "kestrix1/image/color_management.h"

#include <gtest/gtest.h>
#include <lcms2.h>
#include <omp.h>

#include <array>
#include <vector>

#include "tests/support/images.h"

TEST(ColorManagement, EqualsOneTransformOverTheWholeBuffer) {
    cmsCIExyY const d50 = {0.3457, 0.3585, 1.0};
    cmsCIExyYTRIPLE const primaries = {
        {0.7347, 0.2653, 1.0}, {0.1596, 0.8404, 1.0}, {0.0366, 0.0001, 1.0}};
    cmsToneCurve *gamma = cmsBuildGamma(nullptr, 1.8), *curves[3] = {gamma, gamma, gamma};
    cmsHPROFILE srgb = cmsCreate_sRGBProfile(), pro = cmsCreateRGBProfile(&d50, &primaries, curves);
    // A plain copy, which leaves the shift and the mask alone, then sRGB to ProPhoto.
    for (cmsUInt32Number flags : {cmsUInt32Number(cmsFLAGS_NULLTRANSFORM), 0u}) {
        cmsHTRANSFORM t = cmsCreateTransform(srgb, TYPE_RGB_16, pro, TYPE_RGB_16, INTENT_PERCEPTUAL,
                                             flags | cmsFLAGS_NOCACHE);
        ColorManagement cm;
        cm.setTransform(t);
        for (auto [rows, cols, extra] :
             {std::array{1, 1, 0}, {5, 7, 2}, {3, 4099, 10}, {123, 161, 0}})
            for (int run = 0; run < 6; ++run) {
                bool const toPro = run & 1;
                omp_set_num_threads(1 << (run / 2));
                // R, G, B one above the other, sharing a row step; 65535, 32767, 32768, 0 in.
                kxtest::PaddedMat planes(3 * rows, cols, CV_16UC1, extra);
                kxtest::fullRangeNoise<unsigned short>(3 * rows, cols, 1, 1).copyTo(planes.view);
                std::vector<cv::Mat> rgb;
                for (int c = 0; c < 3; ++c)
                    rgb.push_back(planes.view.rowRange(c * rows, c * rows + rows));
                unsigned short *ptr[3] = {rgb[0].ptr<ushort>(), rgb[1].ptr<ushort>(),
                                          rgb[2].ptr<ushort>()};
                if (cols > 2) ptr[1][0] = 32767, ptr[1][1] = 32768, ptr[1][2] = 0;
                cv::Mat in, out;
                cv::merge(rgb, in);
                if (toPro) in = (in & cv::Scalar::all(32767)) * 2;

                // convert, in place on interleaved rows with the planes' padding or none.
                kxtest::PaddedMat packed(rows, cols, CV_16UC3, extra * 3);
                in.copyTo(packed.view);
                uchar *bytes = packed.ptr<uchar>();
                cm.convert(bytes, bytes, extra ? packed.step() : 0, cols, rows);
                cmsDoTransform(t, in.data, in.data, cmsUInt32Number(in.total()));
                EXPECT_TRUE(cv::norm(packed.view, in, cv::NORM_INF) == 0 && packed.paddingIntact());
                int const stride = extra ? planes.step() : 0;
                (cm.*(toPro ? &ColorManagement::convertDeviceOrSRGBToProPhoto
                            : &ColorManagement::convertProPhotoToDeviceOrSRGB))(ptr, stride, cols,
                                                                                rows);
                cm.convertProPhotoToDeviceOrSRGB(ptr, stride, cols, 0);  // empty: nothing
                cm.convertDeviceOrSRGBToProPhoto(ptr, stride, 0, rows);
                cv::merge(rgb, out);
                cv::Mat const want = toPro ? in : (in - (in & cv::Scalar::all(1))) / 2;
                EXPECT_TRUE(cv::norm(out, want, cv::NORM_INF) == 0 && planes.paddingIntact())
                    << flags << ", run " << run << ", " << cols << " x " << rows;
            }
        cmsDeleteTransform(t);
    }
    omp_set_num_threads(omp_get_num_procs());
    cmsCloseProfile(srgb), cmsCloseProfile(pro);
    cmsFreeToneCurve(gamma);
}
