# Media and probe plugins for the codec tests, made in the build folder.
#
# Media come from the ffmpeg tool's test source: H.264 by libx264 (main and
# baseline, no B-frames, an access unit delimiter before every picture and the
# parameter sets repeated at every key frame), JPEG by the mjpeg encoder, and
# the reference pictures by the ffmpeg tool decoding the same files.
set(CODEC_MEDIA ${PROJECT_BINARY_DIR}/media/codecs)
set(CODEC_MEDIA_FILES)

function(codec_media output)
  add_custom_command(OUTPUT ${CODEC_MEDIA}/${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CODEC_MEDIA}
    COMMAND ${TQF_FFMPEG} -v error -nostdin -y ${ARGN} ${CODEC_MEDIA}/${output}
    VERBATIM)
  set(CODEC_MEDIA_FILES ${CODEC_MEDIA_FILES} ${CODEC_MEDIA}/${output} PARENT_SCOPE)
endfunction()

function(codec_reference output input pixel_format)
  add_custom_command(OUTPUT ${CODEC_MEDIA}/${output}
    COMMAND ${TQF_FFMPEG} -v error -nostdin -y -i ${CODEC_MEDIA}/${input}
            -f rawvideo -pix_fmt ${pixel_format} ${CODEC_MEDIA}/${output}
    DEPENDS ${CODEC_MEDIA}/${input}
    VERBATIM)
  set(CODEC_MEDIA_FILES ${CODEC_MEDIA_FILES} ${CODEC_MEDIA}/${output} PARENT_SCOPE)
endfunction()

set(X264_ARGS -c:v libx264 -bf 0 -g 25 -x264-params aud=1:repeat-headers=1 -pix_fmt yuv420p -f h264)
codec_media(main_352x288.h264 -f lavfi -i testsrc2=size=352x288:rate=25 -frames:v 60
            -profile:v main ${X264_ARGS})
codec_reference(main_352x288.yuv main_352x288.h264 yuv420p)
codec_media(baseline_320x240.h264 -f lavfi -i testsrc2=size=320x240:rate=25 -frames:v 30
            -profile:v baseline ${X264_ARGS})
codec_reference(baseline_320x240.yuv baseline_320x240.h264 yuv420p)

# JPEG keeps its full-range samples: the references are decoded in the
# file's own pixel format, so that no range conversion stands between them.
foreach(format 420 422 444)
  codec_media(picture_${format}_176x144.jpg -f lavfi -i testsrc2=size=176x144 -frames:v 1
              -c:v mjpeg -pix_fmt yuvj${format}p)
  codec_reference(picture_${format}_176x144.yuv picture_${format}_176x144.jpg yuvj${format}p)
endforeach()
# The test source rounds odd heights down, so an odd one is cut from an even one.
codec_media(picture_422_176x143.jpg -f lavfi -i testsrc2=size=176x144 -frames:v 1
            -vf format=yuvj422p,crop=176:143:0:0 -c:v mjpeg -pix_fmt yuvj422p)
codec_reference(picture_422_176x143.yuv picture_422_176x143.jpg yuvj422p)

add_custom_target(codec_test_media DEPENDS ${CODEC_MEDIA_FILES})
