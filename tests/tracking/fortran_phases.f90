! Phases and allocations as numerical code makes them; a test reads the files. What stays allocated at
! the end is one block of 3000 bytes.
program fortran_phases
    use, intrinsic :: iso_c_binding
    use kxmbasmem
    implicit none

    interface
        subroutine end_tracking() bind(c)
        end subroutine end_tracking
    end interface
    type(c_ptr) :: kept, block
    integer :: i
    character(len=40) :: name

    call mem_tracker_enterphase(1_c_int, 'assembly, and more than that', 8_c_int)
    kept = mem_malloc(3000_c_size_t)
    do i = 1, 3
        write (name, '(a, i0)') 'element ', i
        call mem_tracker_enterphase(0_c_int, name, int(len_trim(name), c_int))
        block = mem_calloc(10_c_size_t, int(i, c_size_t))
        call mem_free(block)
        call mem_tracker_exitphase(0_c_int)
    end do
    call mem_tracker_printtransaction('from Fortran', 12_c_int)
    if (mem_trackerc_currtransactionid() /= 7) error stop 1
    call mem_tracker_exitphase(1_c_int)
    call end_tracking()
    call mem_free(kept)
end program fortran_phases
