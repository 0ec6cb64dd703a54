! Fortran's allocate: sums over arrays that grow, and a request that a limit refuses, told by stat.
program work_arrays
  implicit none
  double precision, allocatable :: x(:)
  double precision :: total
  integer :: i, status
  total = 0
  do i = 1, 40
    allocate (x(i * 10000))
    x = i
    total = total + sum(x)
    deallocate (x)
  end do
  write (*, '(a, f14.1)') 'total', total
  allocate (x(400000000), stat=status)
  write (*, '(a, l2)') 'refused', status /= 0
end program
