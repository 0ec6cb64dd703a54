! Arrays whose memory is the library's, as `allocate` makes them from the C runtime's: they count against
! the memory limit and in the records of tracking.
!
!     real(c_double), pointer :: x(:), k(:, :)
!     integer :: stat
!     call kxm_allocate(x, n, stat)
!     if (stat /= 0) ...                          ! x is null, nothing was stopped: make room, or end well
!     call kxm_allocate(k, [n, n], stat, lower=[0, 0])
!     ...
!     call kxm_release(x)
!
! kxm_allocate(array, shape, stat [, lower])
!     array    pointer of rank 1 to 3 to real, complex (both of 4 and 8 bytes a part), integer (1, 4 and 8
!              bytes) or logical. What it pointed at before is forgotten, not released. Its contents are
!              undefined. `contiguous` may be added to its declaration; compilers make better code then.
!     shape    its extents in elements, of either kind of integer: a number for rank 1, else an array such
!              as [rows, columns]. An extent below 0 counts as 0, and an array without elements takes no
!              memory, is associated, and is released like any other.
!     stat     0, or why there is no memory and `array` is null:
!              kxm_refused    the library refused; mem_errormemorylimit() is -1 when that was the limit
!              kxm_too_large  the bytes cannot be told in 64 bits; the library was not asked
!     lower    its lower bounds, of the same form and kind as the shape; 1 where absent
!
! On the guarded back end, which is for debugging, a refusal faults instead.
!
! kxm_release(array) gives the memory back and leaves a null pointer, so that a second release does nothing.
! The array belongs to whoever allocated it: release it through a pointer that has the whole array, no
! section of it, and through one of its pointers alone; others that point at it are left dangling. Not for
! what `allocate` made, and nothing made here is for `deallocate`.
!
! Arrays are aligned as mem_malloc's blocks, to 8 bytes at least. Any thread may call, for an array of its own.

! What all types have in common.
module kxm_array_memory
    use, intrinsic :: iso_c_binding, only: c_associated, c_int64_t, c_null_ptr, c_ptr, c_size_t
    use kxmbasmem, only: mem_malloc
    implicit none
    private

    public :: take, kxm_refused, kxm_too_large

    integer, parameter :: kxm_refused = 1, kxm_too_large = 2

contains

    ! A block for the product of the extents; c_null_ptr and 0 where that is 0.
    subroutine take(extents, element_bytes, block, stat)
        integer(c_int64_t), intent(in) :: extents(:), element_bytes
        type(c_ptr), intent(out) :: block
        integer, intent(out) :: stat
        integer(c_int64_t) :: bytes
        integer :: i

        block = c_null_ptr
        stat = 0
        if (any(extents == 0)) return
        stat = kxm_too_large
        bytes = element_bytes
        do i = 1, size(extents)
            if (extents(i) > huge(bytes) / bytes) return
            bytes = bytes * extents(i)
        end do
        block = mem_malloc(int(bytes, c_size_t))
        stat = merge(0, kxm_refused, c_associated(block))
    end subroutine take

end module kxm_array_memory

#define KXM_MODULE kxm_arrays_real4
#define KXM_TYPE real(c_float)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_real8
#define KXM_TYPE real(c_double)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_complex4
#define KXM_TYPE complex(c_float_complex)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_complex8
#define KXM_TYPE complex(c_double_complex)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_integer1
#define KXM_TYPE integer(c_int8_t)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_integer4
#define KXM_TYPE integer(c_int32_t)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_integer8
#define KXM_TYPE integer(c_int64_t)
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

#define KXM_MODULE kxm_arrays_logical
#define KXM_TYPE logical
#include "kxm_arrays_type.inc"
#undef KXM_MODULE
#undef KXM_TYPE

module kxm_arrays
    use kxm_array_memory, only: kxm_refused, kxm_too_large
    use kxm_arrays_real4
    use kxm_arrays_real8
    use kxm_arrays_complex4
    use kxm_arrays_complex8
    use kxm_arrays_integer1
    use kxm_arrays_integer4
    use kxm_arrays_integer8
    use kxm_arrays_logical
    implicit none
    private

    public :: kxm_allocate, kxm_release, kxm_refused, kxm_too_large
end module kxm_arrays
