! Work arrays of the kernels. They come from the library's entries instead of Fortran's allocate,
! which would ask the C runtime behind the library's back, and are counted with the job's requests.
module work_arrays
    use, intrinsic :: iso_c_binding, only: c_double, c_f_pointer, c_int, c_null_ptr, c_associated, &
                                           c_ptr, c_size_t
    use kxmbasmem, only: mem_malloc, mem_free
    implicit none
    private

    public :: work_array, acquire, release

    type :: work_array
        type(c_ptr) :: address = c_null_ptr
        integer(c_size_t) :: bytes = 0
    end type work_array

    interface
        function work_charge(bytes) bind(c, name="work_charge") result(granted)
            import :: c_int, c_size_t
            integer(c_size_t), value, intent(in) :: bytes
            integer(c_int) :: granted
        end function work_charge

        subroutine work_granted(bytes) bind(c, name="work_granted")
            import :: c_size_t
            integer(c_size_t), value, intent(in) :: bytes
        end subroutine work_granted

        subroutine work_refused(bytes) bind(c, name="work_refused")
            import :: c_size_t
            integer(c_size_t), value, intent(in) :: bytes
        end subroutine work_refused

        function work_rescued() bind(c, name="work_rescued") result(again)
            import :: c_int
            integer(c_int) :: again
        end function work_rescued

        subroutine work_discharge(bytes) bind(c, name="work_discharge")
            import :: c_size_t
            integer(c_size_t), value, intent(in) :: bytes
        end subroutine work_discharge
    end interface

contains

    ! values becomes an array of count numbers, or stays null when the library refuses.
    subroutine acquire(work, count, values)
        type(work_array), intent(inout) :: work
        integer(c_size_t), intent(in) :: count
        real(c_double), pointer, contiguous, intent(out) :: values(:)

        nullify (values)
        work%bytes = count * 8_c_size_t
        do
            if (work_charge(work%bytes) /= 0) then
                work%address = mem_malloc(work%bytes)
                if (c_associated(work%address)) exit
                call work_refused(work%bytes)
            end if
            if (work_rescued() == 0) return
        end do
        call work_granted(work%bytes)
        call c_f_pointer(work%address, values, [count])
    end subroutine acquire

    subroutine release(work)
        type(work_array), intent(inout) :: work

        if (.not. c_associated(work%address)) return
        call mem_free(work%address)
        call work_discharge(work%bytes)
        work%address = c_null_ptr
    end subroutine release

end module work_arrays
