! Stiffness and stress of tetrahedra of four and ten nodes, isotropic linear elasticity.
!
! Isoparametric elements. Integration takes one point for first order and four for second, which is
! exact as long as the edges are straight. A node pair (a, b) gives the 3x3 block
!     lambda ga gb^T + mu (gb ga^T + (ga . gb) I),
! with g the gradients of the shape functions; this needs far fewer operations than B^T D B.
module element_kernels
    use, intrinsic :: iso_c_binding, only: c_double, c_int, c_size_t
    use work_arrays, only: work_array, acquire, release
    implicit none
    private

    public :: elasticity_stiffness, elasticity_stress

    ! Distances of the four integration points to the faces: one far, three near.
    real(c_double), parameter :: near = 0.1381966011250105_c_double
    real(c_double), parameter :: far = 1.0_c_double - 3.0_c_double * near

    ! Gradients of the four barycentric coordinates in the reference element.
    real(c_double), parameter :: barycentric_gradient(3, 4) = reshape([ &
        -1.0_c_double, -1.0_c_double, -1.0_c_double, 1.0_c_double, 0.0_c_double, 0.0_c_double, &
         0.0_c_double, 1.0_c_double, 0.0_c_double, 0.0_c_double, 0.0_c_double, 1.0_c_double], [3, 4])

    integer, parameter :: edge_ends(2, 6) = reshape([1, 2, 2, 3, 3, 1, 1, 4, 2, 4, 3, 4], [2, 6])

    integer(c_int), parameter :: out_of_memory = -1

contains

    ! Stiffness of count elements, in 3x3 blocks: stiffness(:, :, a, b, e) couples nodes a and b.
    ! failed is 0, or the number from 1 of the first element whose volume is not positive somewhere,
    ! or -1 when no memory was to be had.
    subroutine elasticity_stiffness(count, nodes, coordinates, lambda, mu, stiffness, failed) &
        bind(c, name="elasticity_stiffness")
        integer(c_int), value, intent(in) :: count, nodes
        real(c_double), intent(in) :: coordinates(3, nodes, count)
        real(c_double), value, intent(in) :: lambda, mu
        real(c_double), intent(out) :: stiffness(3, 3, nodes, nodes, count)
        integer(c_int), intent(out) :: failed
        type(work_array) :: reference_work, gradient_work
        real(c_double), pointer, contiguous :: reference(:), gradient(:)
        real(c_double) :: volume
        integer :: e, p, points, stride

        failed = out_of_memory
        points = point_count(nodes)
        stride = 3 * nodes
        call acquire(reference_work, int(stride * points, c_size_t), reference)
        call acquire(gradient_work, int(stride, c_size_t), gradient)
        if (associated(reference) .and. associated(gradient)) then
            failed = 0
            do p = 1, points
                call shape_gradients(nodes, p, reference((p - 1) * stride + 1:p * stride))
            end do
            stiffness = 0.0_c_double
            elements: do e = 1, count
                do p = 1, points
                    call spatial_gradients(nodes, coordinates(1, 1, e), &
                                           reference((p - 1) * stride + 1:p * stride), &
                                           gradient, volume)
                    if (.not. volume > 0.0_c_double) then
                        failed = e
                        exit elements
                    end if
                    call add_point(nodes, gradient, lambda * volume / points, &
                                   mu * volume / points, stiffness(1, 1, 1, 1, e))
                end do
            end do elements
        end if
        call release(gradient_work)
        call release(reference_work)
    end subroutine elasticity_stiffness

    ! Stress (xx, yy, zz, xy, yz, zx) at the nodes of count elements, carried linearly from the
    ! integration points, where it is most accurate, to the nodes. failed as above.
    subroutine elasticity_stress(count, nodes, coordinates, displacement, lambda, mu, stress, failed) &
        bind(c, name="elasticity_stress")
        integer(c_int), value, intent(in) :: count, nodes
        real(c_double), intent(in) :: coordinates(3, nodes, count), displacement(3, nodes, count)
        real(c_double), value, intent(in) :: lambda, mu
        real(c_double), intent(out) :: stress(6, nodes, count)
        integer(c_int), intent(out) :: failed
        type(work_array) :: reference_work, gradient_work
        real(c_double), pointer, contiguous :: reference(:), gradient(:)
        real(c_double) :: at_point(6, 4), volume
        integer :: e, p, points, stride

        failed = out_of_memory
        points = point_count(nodes)
        stride = 3 * nodes
        call acquire(reference_work, int(stride, c_size_t), reference)
        call acquire(gradient_work, int(stride, c_size_t), gradient)
        if (associated(reference) .and. associated(gradient)) then
            failed = 0
            elements: do e = 1, count
                do p = 1, points
                    call shape_gradients(nodes, p, reference)
                    call spatial_gradients(nodes, coordinates(1, 1, e), reference, gradient, volume)
                    if (.not. volume > 0.0_c_double) then
                        failed = e
                        exit elements
                    end if
                    call point_stress(nodes, gradient, displacement(1, 1, e), lambda, mu, &
                                      at_point(:, p))
                end do
                call carry_to_nodes(nodes, points, at_point, stress(1, 1, e))
            end do elements
        end if
        call release(gradient_work)
        call release(reference_work)
    end subroutine elasticity_stress

    pure function point_count(nodes) result(points)
        integer(c_int), intent(in) :: nodes
        integer :: points

        points = merge(4, 1, nodes == 10)
    end function point_count

    ! Derivatives of the shape functions by the reference coordinates at integration point p.
    subroutine shape_gradients(nodes, p, gradient)
        integer(c_int), intent(in) :: nodes
        integer, intent(in) :: p
        real(c_double), intent(out) :: gradient(3, nodes)
        real(c_double) :: weight(4)
        integer :: i, a, b

        if (nodes == 4) then
            gradient(:, 1:4) = barycentric_gradient
            return
        end if
        weight = near
        weight(p) = far
        do i = 1, 4
            gradient(:, i) = (4.0_c_double * weight(i) - 1.0_c_double) * barycentric_gradient(:, i)
        end do
        do i = 1, 6
            a = edge_ends(1, i)
            b = edge_ends(2, i)
            gradient(:, 4 + i) = 4.0_c_double * (weight(a) * barycentric_gradient(:, b) + &
                                                 weight(b) * barycentric_gradient(:, a))
        end do
    end subroutine shape_gradients

    ! Derivatives by the true coordinates, and the volume that the element has where its map is
    ! everywhere as at this point.
    subroutine spatial_gradients(nodes, coordinates, reference, gradient, volume)
        integer(c_int), intent(in) :: nodes
        real(c_double), intent(in) :: coordinates(3, nodes), reference(3, nodes)
        real(c_double), intent(out) :: gradient(3, nodes), volume
        real(c_double) :: jacobian(3, 3), inverse(3, 3), determinant
        integer :: a

        call sum_of_products(nodes, coordinates, reference, jacobian)
        call cofactors(jacobian, inverse)
        determinant = dot_product(jacobian(:, 1), inverse(:, 1))
        volume = determinant / 6.0_c_double
        if (.not. determinant > 0.0_c_double) return
        inverse = inverse / determinant
        do a = 1, nodes
            gradient(:, a) = inverse(:, 1) * reference(1, a) + inverse(:, 2) * reference(2, a) + &
                             inverse(:, 3) * reference(3, a)
        end do
    end subroutine spatial_gradients

    ! left times the transpose of right, without the temporaries that the intrinsics may take from
    ! behind the library's back.
    pure subroutine sum_of_products(nodes, left, right, total)
        integer(c_int), intent(in) :: nodes
        real(c_double), intent(in) :: left(3, nodes), right(3, nodes)
        real(c_double), intent(out) :: total(3, 3)
        integer :: a, i

        total = 0.0_c_double
        do a = 1, nodes
            do i = 1, 3
                total(:, i) = total(:, i) + left(:, a) * right(i, a)
            end do
        end do
    end subroutine sum_of_products

    ! Columns of the transposed inverse, times the determinant: cross products of the columns.
    pure subroutine cofactors(matrix, result)
        real(c_double), intent(in) :: matrix(3, 3)
        real(c_double), intent(out) :: result(3, 3)
        integer :: i, j, k

        do i = 1, 3
            j = mod(i, 3) + 1
            k = mod(j, 3) + 1
            result(1, i) = matrix(2, j) * matrix(3, k) - matrix(3, j) * matrix(2, k)
            result(2, i) = matrix(3, j) * matrix(1, k) - matrix(1, j) * matrix(3, k)
            result(3, i) = matrix(1, j) * matrix(2, k) - matrix(2, j) * matrix(1, k)
        end do
    end subroutine cofactors

    subroutine add_point(nodes, gradient, lambda, mu, stiffness)
        integer(c_int), intent(in) :: nodes
        real(c_double), intent(in) :: gradient(3, nodes), lambda, mu
        real(c_double), intent(inout) :: stiffness(3, 3, nodes, nodes)
        real(c_double) :: shear
        integer :: a, b, i, j

        do b = 1, nodes
            do a = 1, nodes
                shear = mu * dot_product(gradient(:, a), gradient(:, b))
                do j = 1, 3
                    do i = 1, 3
                        stiffness(i, j, a, b) = stiffness(i, j, a, b) + &
                                                lambda * gradient(i, a) * gradient(j, b) + &
                                                mu * gradient(j, a) * gradient(i, b)
                    end do
                    stiffness(j, j, a, b) = stiffness(j, j, a, b) + shear
                end do
            end do
        end do
    end subroutine add_point

    subroutine point_stress(nodes, gradient, displacement, lambda, mu, stress)
        integer(c_int), intent(in) :: nodes
        real(c_double), intent(in) :: gradient(3, nodes), displacement(3, nodes), lambda, mu
        real(c_double), intent(out) :: stress(6)
        real(c_double) :: slope(3, 3), pressure
        integer :: i

        call sum_of_products(nodes, displacement, gradient, slope)
        pressure = lambda * (slope(1, 1) + slope(2, 2) + slope(3, 3))
        do i = 1, 3
            stress(i) = pressure + 2.0_c_double * mu * slope(i, i)
        end do
        stress(4) = mu * (slope(1, 2) + slope(2, 1))
        stress(5) = mu * (slope(2, 3) + slope(3, 2))
        stress(6) = mu * (slope(3, 1) + slope(1, 3))
    end subroutine point_stress

    subroutine carry_to_nodes(nodes, points, at_point, stress)
        integer(c_int), intent(in) :: nodes
        integer, intent(in) :: points
        real(c_double), intent(in) :: at_point(6, 4)
        real(c_double), intent(out) :: stress(6, nodes)
        real(c_double) :: total(6)
        integer :: i

        if (points == 1) then
            do i = 1, nodes
                stress(:, i) = at_point(:, 1)
            end do
            return
        end if
        total = near * (at_point(:, 1) + at_point(:, 2) + at_point(:, 3) + at_point(:, 4))
        do i = 1, 4
            stress(:, i) = (at_point(:, i) - total) / (far - near)
        end do
        do i = 1, 6
            stress(:, 4 + i) = 0.5_c_double * (stress(:, edge_ends(1, i)) + stress(:, edge_ends(2, i)))
        end do
    end subroutine carry_to_nodes

end module element_kernels
