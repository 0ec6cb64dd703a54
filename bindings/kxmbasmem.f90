! The C allocation interface for Fortran. Sizes are bytes; addresses are type(c_ptr), given to
! c_f_pointer for use as an array. Blocks follow the rules of the C header: a block of mem_Malign is
! given back by mem_MalignFree, every other one by mem_Free.
module kxmbasmem
    use, intrinsic :: iso_c_binding, only: c_bool, c_char, c_int, c_int64_t, c_ptr, c_size_t
    implicit none
    private

    public :: mem_dlmallinfotype
    public :: mem_malloc, mem_malloc_handled, mem_calloc, mem_realloc, mem_free
    public :: mem_malign, mem_malignfree, mem_release, mem_acquire
    public :: mem_trim, mem_mallopt, mem_footprint, mem_maxfootprint, mem_memorylimit
    public :: mem_fragmentationinfo, mem_errormemorylimit, mem_usingdl, mem_releasememorylock
    public :: mem_footprintfromresources, mem_maxfootprintfromresources, mem_dlmallinfo
    public :: mem_tballocator, mem_tbthreadlock, newdeletetinyblock, mem_smallalloc, mem_smallfree
    public :: mem_tracker_enterphase, mem_tracker_exitphase, mem_tracker_printtransaction
    public :: mem_trackerc_currtransactionid
    public :: mem_scanmemory_ifc, kxmbasmemclearstack
    public :: kxmbaswritemsg
    public :: mem_aligned_malloc, mem_aligned_realloc, mem_aligned_free, mem_alignedalloc

    ! Statistics of the heap: bytes, but for the count ordblks.
    type, bind(c) :: mem_dlmallinfotype
        integer(c_int64_t) :: arena, ordblks, hblkhd, usmblks, uordblks, fordblks, keepcost
    end type mem_dlmallinfotype

    interface
        type(c_ptr) function mem_malloc(size) bind(c, name="mem_Malloc")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size
        end function mem_malloc

        type(c_ptr) function mem_malloc_handled(size) bind(c, name="mem_Malloc_Handled")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size
        end function mem_malloc_handled

        type(c_ptr) function mem_calloc(count, size) bind(c, name="mem_Calloc")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: count, size
        end function mem_calloc

        type(c_ptr) function mem_realloc(ptr, size) bind(c, name="mem_Realloc")
            import :: c_ptr, c_size_t
            type(c_ptr), value :: ptr
            integer(c_size_t), value :: size
        end function mem_realloc

        subroutine mem_free(ptr) bind(c, name="mem_Free")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_free

        type(c_ptr) function mem_malign(size, alignment) bind(c, name="mem_Malign")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size, alignment
        end function mem_malign

        subroutine mem_malignfree(ptr) bind(c, name="mem_MalignFree")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_malignfree

        subroutine mem_release(ptr) bind(c, name="mem_Release")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_release

        subroutine mem_acquire(ptr) bind(c, name="mem_Acquire")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_acquire

        integer(c_int) function mem_trim(pad) bind(c, name="mem_Trim")
            import :: c_int, c_size_t
            integer(c_size_t), value :: pad
        end function mem_trim

        integer(c_int) function mem_mallopt(param, val) bind(c, name="mem_Mallopt")
            import :: c_int, c_size_t
            integer(c_int), value :: param
            integer(c_size_t), value :: val
        end function mem_mallopt

        ! Kibibytes.
        integer(c_size_t) function mem_footprint() bind(c, name="mem_Footprint")
            import :: c_size_t
        end function mem_footprint

        ! Bytes.
        integer(c_size_t) function mem_maxfootprint() bind(c, name="mem_MaxFootprint")
            import :: c_size_t
        end function mem_maxfootprint

        integer(c_size_t) function mem_memorylimit() bind(c, name="mem_MemoryLimit")
            import :: c_size_t
        end function mem_memorylimit

        integer(c_size_t) function mem_fragmentationinfo() bind(c, name="mem_FragmentationInfo")
            import :: c_size_t
        end function mem_fragmentationinfo

        integer(c_int) function mem_errormemorylimit() bind(c, name="mem_ErrorMemoryLimit")
            import :: c_int
        end function mem_errormemorylimit

        integer(c_int) function mem_usingdl() bind(c, name="mem_usingDL")
            import :: c_int
        end function mem_usingdl

        ! Kibibytes, both.
        integer(c_size_t) function mem_footprintfromresources() &
            bind(c, name="mem_FootprintFromResources")
            import :: c_size_t
        end function mem_footprintfromresources

        integer(c_size_t) function mem_maxfootprintfromresources() &
            bind(c, name="mem_MaxFootprintFromResources")
            import :: c_size_t
        end function mem_maxfootprintfromresources

        subroutine mem_releasememorylock() bind(c, name="mem_ReleaseMemoryLock")
        end subroutine mem_releasememorylock

        type(mem_dlmallinfotype) function mem_dlmallinfo() bind(c, name="mem_DLMallinfo")
            import :: mem_dlmallinfotype
        end function mem_dlmallinfo

        ! Phases of the calling thread, for memory tracking. The text is given with its length, at most
        ! 118, with tracking off too, beyond which the process ends:
        ! call mem_tracker_enterphase(0_c_int, 'assembly', 8_c_int). A print flag other than 0 tells of
        ! it on standard error. With tracking off they do nothing, but the first call of any of these
        ! makes the tracker, over twenty megabytes.
        subroutine mem_tracker_enterphase(print, text, length) bind(c)
            import :: c_char, c_int
            integer(c_int), intent(in) :: print
            character(kind=c_char), intent(in) :: text(*)
            integer(c_int), value :: length
        end subroutine mem_tracker_enterphase

        subroutine mem_tracker_exitphase(print) bind(c)
            import :: c_int
            integer(c_int), intent(in) :: print
        end subroutine mem_tracker_exitphase

        subroutine mem_tracker_printtransaction(text, length) bind(c)
            import :: c_char, c_int
            character(kind=c_char), intent(in) :: text(*)
            integer(c_int), value :: length
        end subroutine mem_tracker_printtransaction

        ! Number of the next transaction; 0 with tracking off.
        integer(c_int) function mem_trackerc_currtransactionid() &
            bind(c, name="mem_TrackerC_CurrTransactionId")
            import :: c_int
        end function mem_trackerc_currtransactionid

        ! The tiny block pool. Turned on with a mode other than 0, on the heap alone.
        subroutine mem_tballocator(mode) bind(c, name="mem_TBAllocator")
            import :: c_int
            integer(c_int), value :: mode
        end subroutine mem_tballocator

        subroutine mem_tbthreadlock(on) bind(c, name="mem_TBThreadLock")
            import :: c_bool
            logical(c_bool), value :: on
        end subroutine mem_tbthreadlock

        subroutine newdeletetinyblock(on) bind(c, name="newDeleteTinyBlock")
            import :: c_bool
            logical(c_bool), value :: on
        end subroutine newdeletetinyblock

        ! A block of at most 128 bytes from the pool, on or off. Takes no lock.
        type(c_ptr) function mem_smallalloc(size) bind(c, name="mem_smallalloc")
            import :: c_int, c_ptr
            integer(c_int), intent(in) :: size
        end function mem_smallalloc

        ! Gives such a block back and leaves c_null_ptr.
        subroutine mem_smallfree(ptr) bind(c, name="mem_smallfree")
            import :: c_ptr
            type(c_ptr), intent(inout) :: ptr
        end subroutine mem_smallfree

        ! The detailed report of the first 2 GiB of the address space, on the C standard output.
        subroutine mem_scanmemory_ifc() bind(c)
        end subroutine mem_scanmemory_ifc

        ! Zeroes 4 mebibytes of the stack below the caller, which must be there.
        subroutine kxmbasmemclearstack() bind(c, name="KXMBasMemClearStack")
        end subroutine kxmbasmemclearstack

        ! The aligned back end. Fortran does not tell mem_malign from mem_Malign, so these carry
        ! names of their own here.
        type(c_ptr) function mem_aligned_malloc(size) bind(c, name="mem_malign")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size
        end function mem_aligned_malloc

        type(c_ptr) function mem_aligned_realloc(ptr, size) bind(c, name="mem_realign")
            import :: c_ptr, c_size_t
            type(c_ptr), value :: ptr
            integer(c_size_t), value :: size
        end function mem_aligned_realloc

        subroutine mem_aligned_free(ptr) bind(c, name="mem_free_aligned")
            import :: c_ptr
            type(c_ptr), value :: ptr
        end subroutine mem_aligned_free

        type(c_ptr) function mem_alignedalloc(size, alignment) bind(c, name="mem_alignedAlloc")
            import :: c_ptr, c_size_t
            integer(c_size_t), value :: size, alignment
        end function mem_alignedalloc
    end interface

contains

    ! A line with the first `length` characters of the text to unit 7, which is flushed; an empty line
    ! for 0 and below. Goes to the unit as the program has it open, in order with its own output.
    subroutine kxmbaswritemsg(text, length)
        character(len=*, kind=c_char), intent(in) :: text
        integer(c_int64_t), intent(in) :: length

        interface
            subroutine write_msg(text, length, hidden) bind(c, name="KXMBasWriteMsg")
                import :: c_char, c_int64_t, c_size_t
                character(kind=c_char), intent(in) :: text(*)
                integer(c_int64_t), intent(in) :: length
                integer(c_size_t), value :: hidden
            end subroutine write_msg
        end interface

        call write_msg(text, length, len(text, c_size_t))
    end subroutine kxmbaswritemsg
end module kxmbasmem
